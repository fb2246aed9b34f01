// terrane-offline: lists a catalogue's regions, downloads, shows and deletes offline packs, and
// publishes and serves catalogues of one's own. Built on the public TerraneCommon API only.

#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <terrane/version/version.hpp>

#include "delete_command.hpp"
#include "demo_command.hpp"
#include "download_command.hpp"
#include "interrupt_watcher.hpp"
#include "log_sink.hpp"
#include "network_command.hpp"
#include "options.hpp"
#include "publish_command.hpp"
#include "regions_command.hpp"
#include "serve_command.hpp"
#include "status_command.hpp"
#include "text_format.hpp"
#include "tool_error.hpp"
#include "update_command.hpp"

using namespace terrane::tool;

namespace {

int report(const Result<void>& result) {
    if (result) {
        return Success;
    }
    std::fflush(stdout);
    std::fprintf(stderr, "terrane-offline: %s\n", printable(result.error().message).c_str());
    return result.error().status;
}

// `download` and `update` fetch packs alike.
void addDownloadFlags(CLI::App& command, DownloadSettings& settings) {
    command.add_flag_callback(
        "--no-retry", [&settings] { settings.attempts = 1; },
        "Stop at the first failure instead of asking again after a growing delay");
    command
        .add_option("--attempts", settings.attempts,
                    "How many times a pack is asked for in all before giving up (0: without "
                    "limit)")
        ->type_name("N")
        ->capture_default_str();
    command.add_flag_callback(
        "--no-wan", [&settings] { settings.network = terrane::common::NetworkPolicy::NotOverWAN; },
        "Download only while the catalogue is reached other than over a mobile or metered link; "
        "wait otherwise");
}

int run(int argc, char** argv, InterruptWatcher& interrupts) {
    CLI::App app{"Downloads and manages offline map and navigation packs.", "terrane-offline"};
    app.set_version_flag("--version", terrane::common::Version::getCommonSDKVersionString());
    app.require_subcommand(1);
    // Global options may also follow the command: `terrane-offline download x --user me`.
    app.fallthrough();

    GlobalOptions global;
    app.add_option("--storage", global.storage,
                   "Where packs are stored (default: $XDG_DATA_HOME/terrane, else "
                   "~/.local/share/terrane)")
        ->type_name("DIR");
    app.add_option("--base-url", global.baseUrl,
                   "Catalogue endpoint: scheme, host and optional path (default: the built-in one)")
        ->type_name("URL");
    app.add_option("--user", global.user, "The catalogue user name")->type_name("NAME");
    app.add_option("--token-file", global.tokenFile,
                   "Read the access token from FILE (default: $TERRANE_ACCESS_TOKEN)")
        ->type_name("FILE");
    app.add_flag("--verbose", global.verbose, "Print the service's log messages to stderr");
    app.add_flag("--json", global.json, "Machine-readable output where it applies");
    app.add_option("--wait", global.waitSeconds,
                   "How long to wait for another process that uses the same storage")
        ->type_name("SECONDS")
        ->capture_default_str();

    auto* regions = app.add_subcommand("regions", "List the catalogue's regions and their packs");

    DownloadRequest download;
    auto* downloadCommand =
        app.add_subcommand("download", "Download a region's packs and wait until they are usable");
    downloadCommand->add_option("REGION", download.region, "Region id")->required();
    downloadCommand->add_option("--revision", download.revision,
                                "The revision (default: the catalogue's latest)");
    downloadCommand->add_option("--domain", download.domain, "maps, navigation or all")
        ->check(CLI::IsMember({"maps", "navigation", "all"}))
        ->capture_default_str();
    addDownloadFlags(*downloadCommand, download.settings);

    auto* status = app.add_subcommand(
        "status", "Show every stored pack, marking those the catalogue has a newer revision of");

    UpdateRequest update;
    auto* updateCommand = app.add_subcommand(
        "update", "Download the newer revision of stored regions, then delete the older one");
    updateCommand->add_option("REGION", update.region, "Region id (default: every stored one)");
    updateCommand->add_flag("--dry-run", update.dryRun, "Only say what would change");
    addDownloadFlags(*updateCommand, update.settings);

    DeleteRequest erase;
    auto* deleteCommand = app.add_subcommand("delete", "Delete a region's stored packs");
    deleteCommand->add_option("REGION", erase.region, "Region id")->required();
    deleteCommand->add_option("--revision", erase.revision,
                              "Only this revision (default: every stored one)");
    deleteCommand->add_option("--domain", erase.domain, "maps, navigation or all")
        ->check(CLI::IsMember({"maps", "navigation", "all"}))
        ->capture_default_str();

    std::string publishSource;
    std::string publishOut;
    auto* publish = app.add_subcommand(
        "publish", "Build a catalogue tree from pack files and a regions.json description");
    publish->add_option("SRC", publishSource, "Directory with regions.json and the pack files")
        ->required()
        ->check(CLI::ExistingDirectory);
    publish->add_option("OUT", publishOut, "Directory to write the catalogue tree to")->required();

    StaticFileServerOptions serveOptions;
    serveOptions.port = 8080;
    std::string serveRoot;
    auto* serve = app.add_subcommand("serve", "Serve a catalogue tree on 127.0.0.1");
    serve->add_option("DIR", serveRoot, "The tree that publish wrote")
        ->required()
        ->check(CLI::ExistingDirectory);
    serve->add_option("--port", serveOptions.port, "TCP port on 127.0.0.1; 0 picks a free one")
        ->capture_default_str();
    serve
        ->add_option("--max-age", serveOptions.maxAge,
                     "Cache-Control max-age in seconds: the lease of downloaded packs")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    serve
        ->add_option("--rate", serveOptions.rateLimit,
                     "Limit each connection to BYTES per second (0: no limit)")
        ->type_name("BYTES");
    serve
        ->add_option("--access-log", serveOptions.accessLog,
                     "Append a line per request to FILE (the query, with any token, is never "
                     "logged)")
        ->type_name("FILE");

    DemoOptions demoOptions;
    auto* demo = app.add_subcommand(
        "demo", "Publish a sample catalogue, serve it on loopback and run the whole flow");
    demo->add_flag("--keep", demoOptions.keep, "Keep the temporary directory");
    demo->add_option("--rate", demoOptions.rateLimit,
                     "The sample server's BYTES per second per connection")
        ->capture_default_str();

    NetworkCommand network(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        return code == 0 ? Success : Usage;
    }

    const auto withContext = [&](auto&& command) -> Result<void> {
        auto context = resolveContext(global, &interrupts);
        if (!context) {
            return terrane::common::unexpected(context.error());
        }
        installLogSink(context->redact, context->verbose);
        return command(*context);
    };

    Result<void> result;
    if (regions->parsed()) {
        result = withContext([](const ToolContext& context) { return runRegions(context); });
    } else if (downloadCommand->parsed()) {
        result =
            withContext([&](const ToolContext& context) { return runDownload(context, download); });
    } else if (updateCommand->parsed()) {
        result =
            withContext([&](const ToolContext& context) { return runUpdate(context, update); });
    } else if (status->parsed()) {
        result = withContext([](const ToolContext& context) { return runStatus(context); });
    } else if (deleteCommand->parsed()) {
        result = withContext([&](const ToolContext& context) { return runDelete(context, erase); });
    } else if (publish->parsed()) {
        installLogSink(Redactor(), global.verbose);
        result = runPublish(publishSource, publishOut, global.user, global.json);
    } else if (serve->parsed()) {
        installLogSink(Redactor(), global.verbose);
        serveOptions.root = serveRoot;
        serveOptions.echoRequests = global.verbose;
        result = runServe(serveOptions, interrupts);
    } else if (demo->parsed()) {
        installLogSink(Redactor(), global.verbose);
        result = runDemo(global, interrupts, demoOptions);
    } else if (network.parsed()) {
        installLogSink(Redactor(), global.verbose);
        result = network.run(interrupts);
    }
    return report(result);
}

}  // namespace

int main(int argc, char** argv) {
    // Before any thread exists, so that every thread inherits the blocked signals.
    InterruptWatcher interrupts;
    ::signal(SIGPIPE, SIG_IGN);
    try {
        return run(argc, argv, interrupts);
    } catch (const std::exception& error) {
        // Not expected: every failure the tool knows of is a value. Still one line, no abort.
        std::fflush(stdout);
        std::fprintf(stderr, "terrane-offline: internal error: %s\n", error.what());
        return Failure;
    }
}
