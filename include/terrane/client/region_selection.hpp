#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/offline/offline_data.hpp"

namespace terrane::common {

// The region `id` out of a catalogue: at `revision` when one is given, else its latest revision.
// NotFound, naming the region (and revision), when the catalogue has no such entry. Any thread.
TERRANE_EXPORT expected<OfflineDataRegionMetadata, OfflineDataError> findRegion(
    const std::vector<OfflineDataRegionMetadata>& catalogue, std::string_view id,
    optional<std::uint32_t> revision = nullopt);

}  // namespace terrane::common
