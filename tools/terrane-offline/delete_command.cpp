#include "delete_command.hpp"

#include <algorithm>
#include <cstdio>
#include <map>

#include "json_writer.hpp"
#include "offline_session.hpp"
#include "pack_selection.hpp"
#include "storage_wait.hpp"
#include "text_format.hpp"

namespace terrane::tool {

using common::OfflineDataPackStatus;
using namespace std::chrono_literals;

namespace {

struct Doomed {
    common::OfflineDataRegionMetadata region;
    bool done = false;
    bool deleted = false;
    std::string failure;
};

}  // namespace

Result<void> runDelete(const ToolContext& context, const DeleteRequest& request) {
    if (context.user.empty()) {
        return fail(Usage, "delete needs --user NAME: stored packs are kept per user");
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

    const auto matches = [&](const PackKey& key) {
        return key.region == request.region &&
               (!request.revision || *request.revision == key.revision) &&
               std::find(domains->begin(), domains->end(), key.domain) != domains->end();
    };
    // A verification begun at start-up would otherwise report its outcome in the middle of the
    // deletion, where it reads as the deletion's.
    if (auto settled = session.waitWhileVerifying(matches); !settled) {
        return settled;
    }
    std::map<PackKey, Doomed> doomed;
    for (const auto& [key, known] : session.packs()) {
        if (matches(key)) {
            doomed[key] = Doomed{known.region, false, false, {}};
        }
    }
    if (doomed.empty()) {
        std::string what = "region '" + request.region + "'";
        if (request.revision) {
            what += " revision " + std::to_string(*request.revision);
        }
        if (request.domain != "all") {
            what += " (" + request.domain + ")";
        }
        return fail(Failure, "nothing to delete: no stored pack of " + what + " for user " +
                                 context.user + " in " + context.storage);
    }
    for (const auto& [key, pack] : doomed) {
        session.service().deletePack(key.domain, pack.region);
    }

    const std::uint64_t barrier = session.postBarrier();
    bool barrierPassed = false;
    const auto pending = [&doomed] {
        return std::any_of(doomed.begin(), doomed.end(),
                           [](const auto& entry) { return !entry.second.done; });
    };
    while (pending()) {
        const auto event = session.next(1h);
        if (!event) {
            continue;
        }
        if (event->kind == ServiceEvent::Kind::Interrupted) {
            return fail(Interrupted, "interrupted while waiting for the deletion to finish");
        }
        if (event->kind == ServiceEvent::Kind::Barrier) {
            barrierPassed |= event->barrier == barrier;
            continue;
        }
        if (event->kind == ServiceEvent::Kind::Idle && barrierPassed) {
            for (auto& [key, pack] : doomed) {
                if (!pack.done) {
                    pack.done = true;
                    pack.failure = "the service did not delete it (run with --verbose for its log)";
                }
            }
            continue;
        }
        if (event->kind != ServiceEvent::Kind::Pack) {
            continue;
        }
        auto found = doomed.find(event->key());
        if (found == doomed.end() || found->second.done) {
            continue;
        }
        if (event->pack.status == OfflineDataPackStatus::Deleted) {
            found->second.done = true;
            found->second.deleted = true;
            if (!context.json) {
                std::printf("deleted %s\n", describe(found->first).c_str());
                std::fflush(stdout);
            }
        } else if (event->pack.status == OfflineDataPackStatus::Errored) {
            found->second.done = true;
            found->second.failure = event->pack.error ? describeError(*event->pack.error)
                                                      : std::string("no reason given");
        }
    }

    std::size_t failures = 0;
    JsonWriter json;
    json.beginArray();
    for (const auto& [key, pack] : doomed) {
        json.beginObject()
            .key("region")
            .value(key.region)
            .key("revision")
            .value(key.revision)
            .key("domain")
            .value(common::toString(key.domain))
            .key("deleted")
            .value(pack.deleted)
            .key("error");
        if (pack.deleted) {
            json.null();
        } else {
            json.value(context.redact(pack.failure));
        }
        json.endObject();
        if (!pack.deleted) {
            ++failures;
            if (!context.json) {
                std::fprintf(stderr, "terrane-offline: could not delete %s: %s\n",
                             describe(key).c_str(), context.redact(pack.failure).c_str());
            }
        }
    }
    json.endArray();
    if (context.json) {
        std::fputs(json.text().c_str(), stdout);
    }
    std::fflush(stdout);
    if (failures > 0) {
        return fail(Failure, std::to_string(failures) + " of " + std::to_string(doomed.size()) +
                                 " packs were not deleted");
    }
    return {};
}

}  // namespace terrane::tool
