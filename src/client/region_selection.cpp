#include "terrane/client/region_selection.hpp"

#include <string>

namespace terrane::common {

expected<OfflineDataRegionMetadata, OfflineDataError> findRegion(
    const std::vector<OfflineDataRegionMetadata>& catalogue, std::string_view id,
    optional<std::uint32_t> revision) {
    const OfflineDataRegionMetadata* found = nullptr;
    for (const auto& region : catalogue) {
        if (region.id != id || (revision && region.revision != *revision)) {
            continue;
        }
        if (!found || region.revision > found->revision) {
            found = &region;
        }
    }
    if (found) {
        return *found;
    }
    std::string message = "The catalogue has no region '" + std::string(id) + "'";
    if (revision) {
        message += " at revision " + std::to_string(*revision);
    }
    return unexpected(OfflineDataError{OfflineDataErrorCode::NotFound, std::move(message)});
}

}  // namespace terrane::common
