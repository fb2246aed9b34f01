#include "demo_command.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "delete_command.hpp"
#include "download_command.hpp"
#include "publish_command.hpp"
#include "regions_command.hpp"
#include "sample_catalogue.hpp"
#include "scratch_directory.hpp"
#include "static_file_server.hpp"
#include "status_command.hpp"
#include "text_format.hpp"

namespace terrane::tool {

namespace fs = std::filesystem;

namespace {

constexpr const char* kDemoUser = "demo";
// The sample server ignores tokens; one is set all the same so that the run shows it never
// appears in the output.
constexpr const char* kDemoToken = "demo-secret-token";

void heading(const std::string& text) {
    std::printf("\n==> %s\n", text.c_str());
    std::fflush(stdout);
}

}  // namespace

Result<void> runDemo(const GlobalOptions& global, InterruptWatcher& interrupts,
                     const DemoOptions& options) {
    auto scratch = ScratchDirectory::create("terrane-demo");
    if (!scratch) {
        return common::unexpected(scratch.error());
    }
    if (options.keep) {
        scratch->keep();
    }
    const fs::path source = scratch->path() / "source";
    const fs::path published = scratch->path() / "www";
    std::printf("terrane-offline demo: a sample catalogue, served on 127.0.0.1 only, in %s\n",
                scratch->path().c_str());

    heading(std::string("terrane-offline publish ") + source.c_str() + " " + published.c_str() +
            " --user " + kDemoUser);
    if (auto written = writeSampleSource(source); !written) {
        return written;
    }
    if (auto done = runPublish(source.string(), published.string(), kDemoUser, false); !done) {
        return done;
    }

    StaticFileServerOptions serverOptions;
    serverOptions.root = published;
    serverOptions.maxAge = 86400;
    serverOptions.rateLimit = options.rateLimit;
    auto server = StaticFileServer::start(serverOptions);
    if (!server) {
        return common::unexpected(server.error());
    }
    heading(std::string("terrane-offline serve ") + published.c_str() + "   (in this process, at " +
            formatRate(static_cast<double>(options.rateLimit)) + " per connection)");
    std::printf("Serving on %s\n", (*server)->url().c_str());

    ToolContext context;
    context.storage = (scratch->path() / "storage").string();
    context.baseUrl = (*server)->url();
    context.user = kDemoUser;
    context.token = kDemoToken;
    context.redact = Redactor(context.token);
    context.verbose = global.verbose;
    context.json = false;
    context.interrupts = &interrupts;
    if (auto prepared = prepareStorageDirectory(context.storage); !prepared) {
        return prepared;
    }
    std::printf(
        "\nEach step below is what `terrane-offline --storage %s --base-url %s --user %s "
        "COMMAND` prints.\n",
        context.storage.c_str(), context.baseUrl.c_str(), kDemoUser);

    heading("terrane-offline regions");
    if (auto done = runRegions(context); !done) {
        return done;
    }
    for (const char* region : {"harbour", "highlands"}) {
        heading(std::string("terrane-offline download ") + region);
        if (auto done = runDownload(context, DownloadRequest{region, {}, "all", {}}); !done) {
            return done;
        }
    }
    heading("terrane-offline status");
    if (auto done = runStatus(context); !done) {
        return done;
    }
    heading("terrane-offline delete highlands");
    if (auto done = runDelete(context, DeleteRequest{"highlands", {}, "all"}); !done) {
        return done;
    }
    heading("terrane-offline status");
    if (auto done = runStatus(context); !done) {
        return done;
    }

    (*server)->stop();
    std::printf("\nThe sample server answered %llu requests with %s of data.\n",
                static_cast<unsigned long long>((*server)->requestsServed()),
                formatBytes((*server)->bodyBytesSent()).c_str());
    if (options.keep) {
        std::printf("Kept %s for inspection.\n", scratch->path().c_str());
    } else {
        std::printf("Removed %s. Run `terrane-offline demo --keep` to look around instead.\n",
                    scratch->path().c_str());
    }
    std::fflush(stdout);
    return {};
}

}  // namespace terrane::tool
