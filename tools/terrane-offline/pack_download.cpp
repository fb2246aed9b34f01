#include "pack_download.hpp"

#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <sstream>
#include <utility>

#include "json_writer.hpp"
#include "pack_selection.hpp"
#include "progress_display.hpp"
#include "text_format.hpp"

namespace terrane::tool {

using common::OfflineDataErrorCode;
using common::OfflineDataPackStatus;

namespace {

std::string describeCode(OfflineDataErrorCode code) {
    std::ostringstream out;
    out << code;
    return out.str();
}

std::string outcomeLine(const PackOutcome& outcome) {
    const auto& pack = outcome.pack;
    const std::string what = describe(outcome.key);
    switch (pack.status) {
        case OfflineDataPackStatus::Available:
            return what + " is available: " + formatBytes(pack.bytes) + " at " + pack.path;
        case OfflineDataPackStatus::Expired:
            // A pack whose server copy changed keeps failing its re-authorisation; only deleting
            // it makes the next download fetch it afresh.
            return what + " expired" +
                   (pack.error
                        ? ": " + describeError(*pack.error) + " (delete it, then download it again)"
                        : std::string());
        case OfflineDataPackStatus::Errored: {
            std::string line =
                what + " failed: " + (pack.error ? describeError(*pack.error) : outcome.note);
            // The system's words ("No such file or directory") do not say which file.
            if (pack.error && pack.error->code == OfflineDataErrorCode::Filesystem &&
                !pack.path.empty() && pack.error->message.find('/') == std::string::npos) {
                line += " (" + printable(pack.path) + ")";
            }
            return line;
        }
        default:
            return what + " did not complete (" + statusName(pack.status) + ")" +
                   (outcome.note.empty() ? std::string() : ": " + outcome.note);
    }
}

// Hands progress records from the client's thread to the main thread.
class ProgressInbox {
  public:
    void push(const common::PackProgress& record) {
        std::lock_guard lock(mutex_);
        records_.push_back(record);
    }
    std::vector<common::PackProgress> take() {
        std::lock_guard lock(mutex_);
        return std::exchange(records_, {});
    }

  private:
    std::mutex mutex_;
    std::vector<common::PackProgress> records_;
};

// What the user has been told about a pack's waits, so that each is told once.
struct Announced {
    std::uint32_t retryAttempt = 0;
    bool waitingForNetwork = false;
};

}  // namespace

Result<std::vector<PackOutcome>> downloadPacks(
    ClientSession& session, const ToolContext& context,
    const common::OfflineDataRegionMetadata& region,
    const std::vector<common::OfflineDataDomain>& domains, const DownloadSettings& settings) {
    ProgressDisplay progress(stdout, !context.json && ::isatty(STDOUT_FILENO) == 1);
    const auto say = [&](const std::string& line) {
        if (!context.json) {
            progress.println(context.redact(line));
        }
    };
    std::vector<PackKey> keys;
    for (const auto domain : domains) {
        keys.push_back(PackKey{region.id, region.revision, domain});
        if (!context.json) {
            progress.add(keys.back(), packOf(region, domain)->bytes);
        }
    }
    // A pack already available completes at once; it is worth a word of its own.
    std::vector<bool> alreadyAvailable(domains.size(), false);
    const auto stored = session.client().stored();
    for (std::size_t index = 0; index < keys.size(); ++index) {
        alreadyAvailable[index] = std::any_of(stored.begin(), stored.end(), [&](const auto& state) {
            return state.region.id == region.id && state.region.revision == region.revision &&
                   state.domain == domains[index] &&
                   state.pack.status == OfflineDataPackStatus::Available;
        });
    }

    auto inbox = std::make_shared<ProgressInbox>();
    common::PackDownloadOptions options;
    options.progress = [inbox](const common::PackProgress& record) { inbox->push(record); };
    options.stop = session.stopToken();
    options.network = settings.network;
    if (settings.attempts != 0) {
        options.retry.maxAttempts = settings.attempts;
    }
    const auto operation = session.client().download(region, domains, std::move(options));

    std::map<PackKey, Announced> announced;
    bool interruptionTold = false;
    const auto show = [&] {
        const auto now = ProgressDisplay::Clock::now();
        if (session.interrupted() && !interruptionTold) {
            interruptionTold = true;
            say("interrupted: cancelling the downloads");
        }
        for (const auto& record : inbox->take()) {
            const PackKey key{record.regionId, record.revision, record.domain};
            auto& told = announced[key];
            if (record.nextRetry && record.attempt != told.retryAttempt) {
                told.retryAttempt = record.attempt;
                const auto wait = std::chrono::ceil<std::chrono::seconds>(
                    *record.nextRetry - std::chrono::steady_clock::now());
                say(describe(key) + " stopped (" +
                    (record.lastError ? describeError(*record.lastError)
                                      : std::string("the transfer broke off")) +
                    "); trying again in " +
                    formatDuration(std::max(wait, std::chrono::seconds(0))));
            }
            if (record.waitingForNetwork != told.waitingForNetwork) {
                told.waitingForNetwork = record.waitingForNetwork;
                say(describe(key) + (record.waitingForNetwork ? " waits for a network it may use"
                                                              : " goes on: the network is back"));
            }
            progress.update(key, record.bytesDone, now);
        }
        progress.tick(now);
    };
    session.wait(operation, show);

    std::vector<PackOutcome> outcomes;
    bool cancelled = false;
    const auto& results = operation.result();
    for (std::size_t index = 0; index < results.size(); ++index) {
        const auto& result = results[index];
        PackOutcome outcome{keys[index], {}, {}};
        if (result.outcome) {
            outcome.pack = *result.outcome;
        } else {
            // The state the pack was left in tells an expired lease from a failure, and where
            // the file is.
            const auto after = session.client().stored();
            const auto found = std::find_if(after.begin(), after.end(), [&](const auto& state) {
                return state.region.id == region.id && state.region.revision == region.revision &&
                       state.domain == result.domain;
            });
            outcome.pack.status = OfflineDataPackStatus::Errored;
            if (found != after.end()) {
                outcome.pack = found->pack;
            }
            if (result.cancelled) {
                cancelled = true;
                outcome.pack.error.reset();
                outcome.note = "the download was cancelled";
                if (outcome.pack.status == OfflineDataPackStatus::Errored) {
                    outcome.pack.status = OfflineDataPackStatus::Incomplete;
                }
            } else if (result.outcome.error().code == OfflineDataErrorCode::Unknown &&
                       outcome.pack.status != OfflineDataPackStatus::Errored &&
                       outcome.pack.status != OfflineDataPackStatus::Expired) {
                outcome.note = result.outcome.error().message;
            } else {
                if (outcome.pack.status != OfflineDataPackStatus::Expired) {
                    outcome.pack.status = OfflineDataPackStatus::Errored;
                }
                outcome.pack.error = result.outcome.error();
            }
        }
        progress.finish(outcome.key, outcome.pack.status == OfflineDataPackStatus::Available,
                        ProgressDisplay::Clock::now());
        if (alreadyAvailable[index] && result.outcome) {
            say(describe(outcome.key) + " is already available at " + outcome.pack.path);
        } else {
            say(outcomeLine(outcome));
        }
        outcomes.push_back(std::move(outcome));
    }
    progress.close();
    if (!cancelled) {
        return outcomes;
    }
    // A pack past its download (verifying, say) is not stopped by a cancel: it may well have
    // become available meanwhile.
    const auto available = static_cast<std::size_t>(
        std::count_if(outcomes.begin(), outcomes.end(), [](const PackOutcome& outcome) {
            return outcome.pack.status == OfflineDataPackStatus::Available;
        }));
    if (available == outcomes.size()) {
        return fail(Interrupted, "interrupted, but every pack had already become available");
    }
    if (available > 0) {
        return fail(Interrupted, "interrupted; " + std::to_string(available) + " of " +
                                     std::to_string(outcomes.size()) +
                                     " packs became available, the others resume when the same "
                                     "command runs again");
    }
    return fail(Interrupted,
                "interrupted; the downloads were cancelled and resume when the same command runs "
                "again");
}

Result<void> judge(const std::vector<PackOutcome>& outcomes) {
    std::size_t available = 0;
    // Refused credentials and an unreachable server have statuses of their own, as for the
    // catalogue; any other failure is a plain one.
    int status = Failure;
    for (const PackOutcome& outcome : outcomes) {
        if (outcome.pack.status == OfflineDataPackStatus::Available) {
            ++available;
            continue;
        }
        if (!outcome.pack.error) {
            continue;
        }
        const auto code = outcome.pack.error->code;
        if (code == OfflineDataErrorCode::Unauthorized) {
            status = Unauthorized;
        } else if (code == OfflineDataErrorCode::Filesystem &&
                   outcome.pack.error->message.find("in use by another process") !=
                       std::string::npos) {
            // Another process took the storage between our look and our start.
            status = status == Unauthorized ? status : BadInput;
        } else if (code == OfflineDataErrorCode::Connection && status == Failure) {
            status = Unreachable;
        }
    }
    if (available == outcomes.size()) {
        return {};
    }
    return fail(status, std::to_string(outcomes.size() - available) + " of " +
                            std::to_string(outcomes.size()) + " packs did not become available");
}

std::string outcomesJson(const std::vector<PackOutcome>& outcomes, const ToolContext& context) {
    JsonWriter json;
    json.beginArray();
    for (const PackOutcome& outcome : outcomes) {
        const auto& pack = outcome.pack;
        writeKeyMembers(json.beginObject(), outcome.key)
            .key("state")
            .value(statusName(pack.status))
            .key("bytes")
            .value(pack.bytes)
            .key("path")
            .value(pack.path)
            .key("error");
        if (pack.error || !outcome.note.empty()) {
            json.beginObject()
                .key("code")
                .value(pack.error ? describeCode(pack.error->code) : std::string("Unknown"))
                .key("message")
                .value(context.redact(pack.error ? pack.error->message : outcome.note))
                .endObject();
        } else {
            json.null();
        }
        json.endObject();
    }
    json.endArray();
    return json.text();
}

}  // namespace terrane::tool
