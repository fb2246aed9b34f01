#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <utility>

#include "offline/offline_data_pack_holder.hpp"
#include "terrane/expected.hpp"
#include "terrane/offline/offline_data.hpp"

namespace terrane::common {

// A stored region revision: (region id, revision). The worker's region table is ordered by it.
using RegionKey = std::pair<std::string, std::uint32_t>;

// What every answer coming back to the worker from another thread carries: the region revision,
// the domain, and the pack holder's generation when the request was issued.
using PackKey = std::tuple<RegionKey, OfflineDataDomain, std::uint32_t>;

// The worker's entry for one region revision: its metadata as the catalogue gave it, and the
// state of its two packs. Owned by the worker's region table; used only on the worker thread.
struct OfflineDataRegionInternal {
    // Both packs start Deleted: nothing of them is on disk yet.
    explicit OfflineDataRegionInternal(OfflineDataRegionMetadata metadata_)
        : metadata(std::move(metadata_)) {}

    RegionKey key() const { return {metadata.id, metadata.revision}; }

    // The metadata's pack of that domain (mapPack or navigationPack). A domain outside the
    // enumeration is a programming error and aborts.
    optional<OfflineDataPackMetadata>& getPackMetadata(OfflineDataDomain domain);
    const optional<OfflineDataPackMetadata>& getPackMetadata(OfflineDataDomain domain) const;

    // The holder of that domain; aborts like getPackMetadata.
    OfflineDataPackHolder& getPackHolder(OfflineDataDomain domain);
    const OfflineDataPackHolder& getPackHolder(OfflineDataDomain domain) const;

    OfflineDataRegionMetadata metadata;
    OfflineDataPackHolder mapsHolder;
    OfflineDataPackHolder navigationHolder;
};

}  // namespace terrane::common
