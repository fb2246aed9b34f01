#include "download_command.hpp"

#include <unistd.h>

#include <cstdio>
#include <map>
#include <sstream>

#include "json_writer.hpp"
#include "offline_session.hpp"
#include "pack_selection.hpp"
#include "progress_display.hpp"
#include "storage_wait.hpp"
#include "text_format.hpp"

namespace terrane::tool {

using common::OfflineDataDomain;
using common::OfflineDataPackStatus;
using common::OfflineDataRegionMetadata;
using namespace std::chrono_literals;

namespace {

constexpr auto kTick = 100ms;
// How long cancelled downloads get to settle after Ctrl-C before the tool leaves anyway.
constexpr auto kCancelGrace = 10s;

struct Followed {
    OfflineDataRegionMetadata region;
    std::uint64_t expectedBytes = 0;
    bool done = false;
    common::OfflineDataPack last;
    // Why the pack ended without becoming available, when the service did not say.
    std::string note;
};

std::string outcomeLine(const PackKey& key, const Followed& pack) {
    switch (pack.last.status) {
        case OfflineDataPackStatus::Available:
            return describe(key) + " is available: " + formatBytes(pack.last.bytes) + " at " +
                   pack.last.path;
        case OfflineDataPackStatus::Expired:
            // A pack whose server copy changed keeps failing its re-authorisation; only deleting
            // it makes the next download fetch it afresh.
            return describe(key) + " expired" +
                   (pack.last.error ? ": " + describeError(*pack.last.error) +
                                          " (delete it, then download it again)"
                                    : std::string());
        case OfflineDataPackStatus::Errored: {
            std::string line = describe(key) + " failed: " +
                               (pack.last.error ? describeError(*pack.last.error)
                                                : std::string("no reason given"));
            // The system's words ("No such file or directory") do not say which file.
            if (pack.last.error &&
                pack.last.error->code == common::OfflineDataErrorCode::Filesystem &&
                !pack.last.path.empty() &&
                pack.last.error->message.find('/') == std::string::npos) {
                line += " (" + printable(pack.last.path) + ")";
            }
            return line;
        }
        default:
            return describe(key) + " did not complete (" + statusName(pack.last.status) + ")" +
                   (pack.note.empty() ? std::string() : ": " + pack.note);
    }
}

class DownloadRun {
  public:
    DownloadRun(const ToolContext& context, OfflineSession& session)
        : context_(context),
          session_(session),
          progress_(stdout, !context.json && ::isatty(STDOUT_FILENO) == 1) {}

    void follow(const PackKey& key, const OfflineDataRegionMetadata& region, std::uint64_t bytes) {
        packs_[key] = Followed{region, bytes, false, {}, {}};
        if (!context_.json) {
            progress_.add(key, bytes);
        }
    }

    // Lets a verification that start-up recovery restarted finish first: its outcome decides
    // whether a download is needed.
    Result<void> settleVerifications() {
        return session_.waitWhileVerifying(
            [this](const PackKey& key) { return packs_.contains(key); });
    }

    void start() {
        for (auto& [key, pack] : packs_) {
            const auto known = session_.packs().find(key);
            if (known != session_.packs().end() &&
                known->second.pack.status == OfflineDataPackStatus::Available) {
                // The service ignores a download of an available pack; nothing will be reported.
                pack.last = known->second.pack;
                pack.done = true;
                progress_.finish(key, true, ProgressDisplay::Clock::now());
                say(describe(key) + " is already available at " + pack.last.path);
                continue;
            }
            session_.service().downloadPack(key.domain, pack.region);
        }
    }

    Result<void> wait() {
        const std::uint64_t barrier = session_.postBarrier();
        bool barrierPassed = false;
        while (!allDone()) {
            const auto event = session_.next(kTick);
            const auto now = ProgressDisplay::Clock::now();
            if (event) {
                switch (event->kind) {
                    case ServiceEvent::Kind::Pack:
                        onPack(*event, now);
                        break;
                    case ServiceEvent::Kind::Barrier:
                        barrierPassed |= event->barrier == barrier;
                        break;
                    case ServiceEvent::Kind::Idle:
                        if (barrierPassed) {
                            giveUpOnSilentPacks();
                        }
                        break;
                    case ServiceEvent::Kind::Interrupted:
                        return cancel();
                    default:
                        break;
                }
            }
            progress_.tick(now);
        }
        progress_.close();
        return {};
    }

    Result<void> report() {
        std::size_t available = 0;
        for (const auto& [key, pack] : packs_) {
            available += pack.last.status == OfflineDataPackStatus::Available ? 1 : 0;
        }
        if (context_.json) {
            JsonWriter json;
            json.beginArray();
            for (const auto& [key, pack] : packs_) {
                json.beginObject()
                    .key("region")
                    .value(key.region)
                    .key("revision")
                    .value(key.revision)
                    .key("domain")
                    .value(common::toString(key.domain))
                    .key("state")
                    .value(statusName(pack.last.status))
                    .key("bytes")
                    .value(pack.last.bytes)
                    .key("path")
                    .value(pack.last.path)
                    .key("error");
                if (pack.last.error) {
                    json.beginObject()
                        .key("code")
                        .value(describeCode(pack.last.error->code))
                        .key("message")
                        .value(context_.redact(pack.last.error->message))
                        .endObject();
                } else if (!pack.note.empty()) {
                    json.beginObject()
                        .key("code")
                        .value("Unknown")
                        .key("message")
                        .value(pack.note)
                        .endObject();
                } else {
                    json.null();
                }
                json.endObject();
            }
            json.endArray();
            std::fputs(json.text().c_str(), stdout);
            std::fflush(stdout);
        }
        if (available == packs_.size()) {
            return {};
        }
        return fail(failureStatus(), std::to_string(packs_.size() - available) + " of " +
                                         std::to_string(packs_.size()) +
                                         " packs did not become available");
    }

  private:
    static std::string describeCode(common::OfflineDataErrorCode code) {
        std::ostringstream out;
        out << code;
        return out.str();
    }

    // Refused credentials and an unreachable server have statuses of their own, as for the
    // catalogue; any other failure is a plain one.
    int failureStatus() const {
        int status = Failure;
        for (const auto& [key, pack] : packs_) {
            if (!pack.last.error) {
                continue;
            }
            if (pack.last.error->code == common::OfflineDataErrorCode::Unauthorized) {
                return Unauthorized;
            }
            if (pack.last.error->code == common::OfflineDataErrorCode::Connection) {
                status = Unreachable;
            }
            // Another process took the storage between our look and our start.
            if (pack.last.error->code == common::OfflineDataErrorCode::Filesystem &&
                pack.last.error->message.find("in use by another process") != std::string::npos) {
                return BadInput;
            }
        }
        return status;
    }

    bool allDone() const {
        for (const auto& [key, pack] : packs_) {
            if (!pack.done) {
                return false;
            }
        }
        return true;
    }

    void say(const std::string& line) {
        if (!context_.json) {
            progress_.println(context_.redact(line));
        }
    }

    void onPack(const ServiceEvent& event, ProgressDisplay::Clock::time_point now) {
        const PackKey key = event.key();
        auto found = packs_.find(key);
        if (found == packs_.end() || found->second.done) {
            return;
        }
        Followed& pack = found->second;
        pack.last = event.pack;
        switch (event.pack.status) {
            case OfflineDataPackStatus::Pending:
            case OfflineDataPackStatus::Downloading:
                progress_.update(key, event.pack.bytes, now);
                break;
            case OfflineDataPackStatus::Verifying:
                progress_.update(key, pack.expectedBytes, now);
                if (context_.verbose) {
                    say("verifying " + describe(key));
                }
                break;
            case OfflineDataPackStatus::Incomplete:
            case OfflineDataPackStatus::Deleting:
            case OfflineDataPackStatus::Deleted:
                pack.note = event.pack.status == OfflineDataPackStatus::Incomplete
                                ? "the download was cancelled"
                                : "the pack was deleted meanwhile";
                pack.done = true;
                progress_.finish(key, false, now);
                say(outcomeLine(key, pack));
                break;
            default:
                pack.done = true;
                progress_.finish(key, event.pack.status == OfflineDataPackStatus::Available, now);
                say(outcomeLine(key, pack));
                break;
        }
    }

    // The service fell idle after our requests with packs that never reached a final state: it
    // refused them (the reason went to the log) and will not report anything more.
    void giveUpOnSilentPacks() {
        for (auto& [key, pack] : packs_) {
            if (!pack.done) {
                pack.done = true;
                pack.note = "the service did not download it (run with --verbose for its log)";
                say(outcomeLine(key, pack));
            }
        }
    }

    Result<void> cancel() {
        say("interrupted: cancelling the downloads");
        std::size_t cancelled = 0;
        for (const auto& [key, pack] : packs_) {
            if (!pack.done) {
                session_.service().cancelPackDownload(key.domain, pack.region);
                ++cancelled;
            }
        }
        if (cancelled > 0) {
            const std::uint64_t barrier = session_.postBarrier();
            bool barrierPassed = false;
            const auto deadline = std::chrono::steady_clock::now() + kCancelGrace;
            while (std::chrono::steady_clock::now() < deadline) {
                const auto event = session_.next(kTick);
                if (!event) {
                    continue;
                }
                if (event->kind == ServiceEvent::Kind::Interrupted) {
                    break;
                }
                if (event->kind == ServiceEvent::Kind::Pack) {
                    onPack(*event, ProgressDisplay::Clock::now());
                }
                barrierPassed |=
                    event->kind == ServiceEvent::Kind::Barrier && event->barrier == barrier;
                if (barrierPassed && event->kind == ServiceEvent::Kind::Idle) {
                    break;
                }
            }
        }
        progress_.close();
        // A pack past its download (verifying, say) is not stopped by a cancel: it may well have
        // become available meanwhile.
        std::size_t available = 0;
        for (const auto& [key, pack] : packs_) {
            available += pack.last.status == OfflineDataPackStatus::Available ? 1 : 0;
        }
        if (available == packs_.size()) {
            return fail(Interrupted, "interrupted, but every pack had already become available");
        }
        if (available > 0) {
            return fail(Interrupted, "interrupted; " + std::to_string(available) + " of " +
                                         std::to_string(packs_.size()) +
                                         " packs became available, the others resume when the "
                                         "same command runs again");
        }
        return fail(Interrupted,
                    "interrupted; the downloads were cancelled and resume when the same command "
                    "runs again");
    }

    const ToolContext& context_;
    OfflineSession& session_;
    ProgressDisplay progress_;
    std::map<PackKey, Followed> packs_;
};

}  // namespace

Result<void> runDownload(const ToolContext& context, const DownloadRequest& request) {
    if (context.user.empty()) {
        return fail(Usage, "download needs --user NAME: the catalogue is per user");
    }
    const auto domains = parseDomains(request.domain);
    if (!domains) {
        return common::unexpected(domains.error());
    }
    if (auto prepared = prepareStorageDirectory(context.storage); !prepared) {
        return prepared;
    }
    if (auto free = waitForStorage(context, context.baseUrl, context.user); !free) {
        return free;
    }
    OfflineSession session(context, context.baseUrl, context.user);
    if (auto ready = session.waitUntilInitialized(); !ready) {
        return ready;
    }
    const auto catalogue = session.listRegions();
    if (!catalogue) {
        return common::unexpected(catalogue.error());
    }
    const auto region = findRegion(*catalogue, request.region, request.revision);
    if (!region) {
        return common::unexpected(region.error());
    }

    DownloadRun run(context, session);
    std::string plan;
    for (const OfflineDataDomain domain : *domains) {
        const auto& pack = packOf(*region, domain);
        if (!pack) {
            if (domains->size() == 1) {
                return fail(Failure, "region '" + region->id + "' revision " +
                                         std::to_string(region->revision) + " has no " +
                                         common::toString(domain) + " pack");
            }
            continue;
        }
        run.follow(PackKey{region->id, region->revision, domain}, *region, pack->bytes);
        plan +=
            (plan.empty() ? "" : ", ") + common::toString(domain) + " " + formatBytes(pack->bytes);
    }
    if (plan.empty()) {
        return fail(Failure, "region '" + region->id + "' revision " +
                                 std::to_string(region->revision) + " has no packs");
    }
    if (!context.json) {
        std::printf("Downloading %s revision %u (%s) into %s\n", printable(region->id).c_str(),
                    region->revision, plan.c_str(), context.storage.c_str());
        std::fflush(stdout);
    }
    if (auto settled = run.settleVerifications(); !settled) {
        return settled;
    }
    run.start();
    if (auto waited = run.wait(); !waited) {
        return waited;
    }
    return run.report();
}

}  // namespace terrane::tool
