#include "pack_selection.hpp"

#include "text_format.hpp"

namespace terrane::tool {

using common::OfflineDataDomain;

Result<std::vector<OfflineDataDomain>> parseDomains(const std::string& text) {
    if (text == "all") {
        return std::vector<OfflineDataDomain>{OfflineDataDomain::Maps,
                                              OfflineDataDomain::Navigation};
    }
    if (const auto domain = common::toDomain(text)) {
        return std::vector<OfflineDataDomain>{*domain};
    }
    return fail(Usage, "--domain must be maps, navigation or all, not '" + text + "'");
}

Result<common::OfflineDataRegionMetadata> findRegion(
    const std::vector<common::OfflineDataRegionMetadata>& catalogue, const std::string& id,
    const common::optional<std::uint32_t>& revision) {
    for (const auto& region : catalogue) {
        if (region.id != id) {
            continue;
        }
        if (revision && *revision != region.revision) {
            return fail(Failure, "the catalogue offers revision " +
                                     std::to_string(region.revision) + " of region '" + id +
                                     "', not revision " + std::to_string(*revision));
        }
        return region;
    }
    std::string known;
    for (const auto& region : catalogue) {
        known += (known.empty() ? "" : ", ") + printable(region.id);
    }
    return fail(Failure, "the catalogue has no region '" + id + "'" +
                             (known.empty() ? std::string(" (it is empty)")
                                            : " (it offers: " + known + ")"));
}

const common::optional<common::OfflineDataPackMetadata>& packOf(
    const common::OfflineDataRegionMetadata& region, OfflineDataDomain domain) {
    return domain == OfflineDataDomain::Maps ? region.mapPack : region.navigationPack;
}

}  // namespace terrane::tool
