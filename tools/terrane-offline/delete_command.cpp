#include "delete_command.hpp"

#include <algorithm>
#include <cstdio>
#include <map>

#include "client_session.hpp"
#include "json_writer.hpp"
#include "pack_selection.hpp"
#include "service_events.hpp"
#include "storage_wait.hpp"
#include "text_format.hpp"

namespace terrane::tool {

using namespace std::chrono_literals;

namespace {

struct Doomed {
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
    ClientSession session(context);
    const auto matches = [&](const common::PackState& state) {
        return state.region.id == request.region &&
               (!request.revision || *request.revision == state.region.revision) &&
               std::find(domains->begin(), domains->end(), state.domain) != domains->end();
    };
    // One removal per stored revision, of the domains it holds.
    std::map<std::uint32_t,
             std::pair<common::OfflineDataRegionMetadata, std::vector<common::OfflineDataDomain>>>
        revisions;
    for (const auto& state : session.client().stored()) {
        if (matches(state)) {
            auto& entry = revisions[state.region.revision];
            entry.first = state.region;
            entry.second.push_back(state.domain);
        }
    }
    if (revisions.empty()) {
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
    std::vector<std::pair<PackKey, common::PackOperation>> removals;
    for (const auto& [revision, entry] : revisions) {
        const auto operation = session.client().remove(entry.first, entry.second);
        for (const auto domain : entry.second) {
            removals.emplace_back(PackKey{request.region, revision, domain}, operation);
        }
    }
    std::map<PackKey, Doomed> doomed;
    for (auto& [key, operation] : removals) {
        while (!operation.wait_for(100ms)) {
            if (session.interrupted()) {
                return fail(Interrupted, "interrupted while waiting for the deletion to finish");
            }
        }
        const auto& results = operation.result();
        const auto result = std::find_if(results.begin(), results.end(), [&](const auto& each) {
            return each.domain == key.domain;
        });
        Doomed& pack = doomed[key];
        pack.deleted = result->outcome.has_value();
        if (pack.deleted) {
            if (!context.json) {
                std::printf("deleted %s\n", describe(key).c_str());
                std::fflush(stdout);
            }
        } else {
            pack.failure = describeError(result->outcome.error());
        }
    }

    std::size_t failures = 0;
    JsonWriter json;
    json.beginArray();
    for (const auto& [key, pack] : doomed) {
        writeKeyMembers(json.beginObject(), key).key("deleted").value(pack.deleted).key("error");
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
