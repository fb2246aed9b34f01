#include "update_command.hpp"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "client_session.hpp"
#include "json_writer.hpp"
#include "pack_selection.hpp"
#include "storage_wait.hpp"
#include "text_format.hpp"

namespace terrane::tool {

using common::OfflineDataDomain;
using common::OfflineDataRegionMetadata;
using namespace std::chrono_literals;

namespace {

// The revisions of one region that the storage holds, and the domains stored of each.
struct StoredRegion {
    std::map<std::uint32_t, std::pair<OfflineDataRegionMetadata, std::set<OfflineDataDomain>>>
        revisions;
};

// What bringing one region up to date takes.
struct Update {
    OfflineDataRegionMetadata target;
    std::vector<OfflineDataDomain> domains;
    // The older revisions, each with the domains stored of it: deleted once `target` is there.
    std::vector<std::pair<OfflineDataRegionMetadata, std::vector<OfflineDataDomain>>> older;
    bool updated = false;
};

std::string revisionList(const Update& update) {
    std::string text;
    for (const auto& [region, domains] : update.older) {
        text += (text.empty() ? "" : ", ") + std::to_string(region.revision);
    }
    return text;
}

std::string domainList(const Update& update) {
    std::string text;
    for (const auto domain : update.domains) {
        text += (text.empty() ? "" : ", ") + common::toString(domain) + " " +
                formatBytes(packOf(update.target, domain)->bytes);
    }
    return text;
}

std::vector<Update> plan(const std::map<std::string, StoredRegion>& stored,
                         const std::vector<OfflineDataRegionMetadata>& catalogue) {
    std::vector<Update> updates;
    for (const auto& [id, region] : stored) {
        const auto latest = findRegion(catalogue, id, common::nullopt);
        if (!latest || latest->revision <= region.revisions.rbegin()->first) {
            continue;
        }
        Update update{*latest, {}, {}, false};
        std::set<OfflineDataDomain> wanted;
        for (const auto& [revision, entry] : region.revisions) {
            wanted.insert(entry.second.begin(), entry.second.end());
            update.older.emplace_back(entry.first, std::vector<OfflineDataDomain>(
                                                       entry.second.begin(), entry.second.end()));
        }
        for (const auto domain : wanted) {
            if (packOf(*latest, domain)) {
                update.domains.push_back(domain);
            }
        }
        if (!update.domains.empty()) {
            updates.push_back(std::move(update));
        }
    }
    return updates;
}

void printJson(const std::vector<Update>& updates) {
    JsonWriter json;
    json.beginArray();
    for (const Update& update : updates) {
        json.beginObject().key("region").value(update.target.id).key("from").beginArray();
        for (const auto& [region, domains] : update.older) {
            json.value(region.revision);
        }
        json.endArray().key("to").value(update.target.revision).key("domains").beginArray();
        for (const auto domain : update.domains) {
            json.value(common::toString(domain));
        }
        json.endArray().key("updated").value(update.updated).endObject();
    }
    json.endArray();
    std::fputs(json.text().c_str(), stdout);
}

}  // namespace

Result<void> runUpdate(const ToolContext& context, const UpdateRequest& request) {
    if (context.user.empty()) {
        return fail(Usage, "update needs --user NAME: stored packs are kept per user");
    }
    if (auto prepared = prepareStorageDirectory(context.storage); !prepared) {
        return prepared;
    }
    if (auto free = waitForStorage(context, context.baseUrl, context.user); !free) {
        return free;
    }
    ClientSession session(context, request.settings.network);
    std::map<std::string, StoredRegion> stored;
    for (const auto& state : session.client().stored()) {
        if (request.region.empty() || state.region.id == request.region) {
            auto& entry = stored[state.region.id].revisions[state.region.revision];
            entry.first = state.region;
            entry.second.insert(state.domain);
        }
    }
    if (stored.empty() && !request.region.empty()) {
        return fail(Failure, "nothing to update: no stored pack of region '" + request.region +
                                 "' for user " + context.user + " in " + context.storage);
    }
    const auto catalogue = session.listRegions();
    if (!catalogue) {
        return common::unexpected(catalogue.error());
    }
    std::vector<Update> updates = plan(stored, *catalogue);
    const auto say = [&](const std::string& line) {
        if (!context.json) {
            std::printf("%s\n", context.redact(line).c_str());
            std::fflush(stdout);
        }
    };
    if (updates.empty()) {
        say(stored.empty() ? "No packs stored in " + context.storage
                           : "Every stored region is at the catalogue's latest revision");
    }
    if (request.dryRun) {
        for (const Update& update : updates) {
            say("would update " + printable(update.target.id) + " from revision " +
                revisionList(update) + " to " + std::to_string(update.target.revision) + " (" +
                domainList(update) + ")");
        }
        if (context.json) {
            printJson(updates);
        }
        return {};
    }

    std::vector<PackOutcome> outcomes;
    for (Update& update : updates) {
        say("Updating " + printable(update.target.id) + " from revision " + revisionList(update) +
            " to " + std::to_string(update.target.revision) + " (" + domainList(update) + ")");
        auto downloaded =
            downloadPacks(session, context, update.target, update.domains, request.settings);
        if (!downloaded) {
            return common::unexpected(downloaded.error());
        }
        outcomes.insert(outcomes.end(), downloaded->begin(), downloaded->end());
        if (!judge(*downloaded)) {
            say("keeping revision " + revisionList(update) + " of " + printable(update.target.id));
            continue;
        }
        for (const auto& [region, domains] : update.older) {
            const auto removal = session.client().remove(region, domains);
            while (!removal.wait_for(100ms)) {
                if (session.interrupted()) {
                    return fail(Interrupted, "interrupted while deleting the older revision");
                }
            }
            for (const auto& result : removal.result()) {
                const PackKey key{region.id, region.revision, result.domain};
                if (result.outcome) {
                    say("deleted " + describe(key));
                } else {
                    say("could not delete " + describe(key) + ": " +
                        describeError(result.outcome.error()));
                }
            }
        }
        update.updated = true;
    }
    if (context.json) {
        printJson(updates);
    }
    std::fflush(stdout);
    return judge(outcomes);
}

}  // namespace terrane::tool
