#include "download_command.hpp"

#include <cstdio>

#include "client_session.hpp"
#include "pack_download.hpp"
#include "pack_selection.hpp"
#include "storage_wait.hpp"
#include "text_format.hpp"

namespace terrane::tool {

using common::OfflineDataDomain;

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
    ClientSession session(context, request.settings.network);
    const auto catalogue = session.listRegions();
    if (!catalogue) {
        return common::unexpected(catalogue.error());
    }
    const auto region = findRegion(*catalogue, request.region, request.revision);
    if (!region) {
        return common::unexpected(region.error());
    }

    std::vector<OfflineDataDomain> offered;
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
        offered.push_back(domain);
        plan +=
            (plan.empty() ? "" : ", ") + common::toString(domain) + " " + formatBytes(pack->bytes);
    }
    if (offered.empty()) {
        return fail(Failure, "region '" + region->id + "' revision " +
                                 std::to_string(region->revision) + " has no packs");
    }
    if (!context.json) {
        std::printf("Downloading %s revision %u (%s) into %s\n", printable(region->id).c_str(),
                    region->revision, plan.c_str(), context.storage.c_str());
        std::fflush(stdout);
    }
    const auto outcomes = downloadPacks(session, context, *region, offered, request.settings);
    if (!outcomes) {
        return common::unexpected(outcomes.error());
    }
    if (context.json) {
        std::fputs(outcomesJson(*outcomes, context).c_str(), stdout);
        std::fflush(stdout);
    }
    return judge(*outcomes);
}

}  // namespace terrane::tool
