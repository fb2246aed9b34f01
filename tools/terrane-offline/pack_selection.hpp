#pragma once

#include <cstdint>
#include <string>
#include <terrane/offline/offline_data.hpp>
#include <vector>

#include "tool_error.hpp"

namespace terrane::tool {

// The domains named by --domain: "maps", "navigation" or "all" (both, maps first).
Result<std::vector<common::OfflineDataDomain>> parseDomains(const std::string& text);

// The catalogue's entry for the region, checked against the revision asked for: the catalogue
// lists one revision per region, its latest.
Result<common::OfflineDataRegionMetadata> findRegion(
    const std::vector<common::OfflineDataRegionMetadata>& catalogue, const std::string& id,
    const common::optional<std::uint32_t>& revision);

// The region's pack of the domain, if it has one.
const common::optional<common::OfflineDataPackMetadata>& packOf(
    const common::OfflineDataRegionMetadata& region, common::OfflineDataDomain domain);

}  // namespace terrane::tool
