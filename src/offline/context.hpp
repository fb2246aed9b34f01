#pragma once

#include <cstdint>
#include <string>

#include "offline/offline_data_pack_holder.hpp"
#include "offline/offline_data_region_internal.hpp"
#include "terrane/expected.hpp"
#include "terrane/offline/offline_data.hpp"

namespace terrane::common {

// The pack that one worker task acts on, resolved from the worker's region table. A view: it
// owns nothing and is valid only within the task that loaded it (the table may change after).
struct Context {
    OfflineDataDomain domain;
    OfflineDataRegionInternal& region;
    // The domain's pack metadata inside region.metadata.
    OfflineDataPackMetadata& pack;
    // The domain's holder inside region.
    OfflineDataPackHolder& holder;

    // The key for an answer to a request issued now: it matches until the holder next changes
    // state through a setter.
    PackKey key() const { return {region.key(), domain, holder.generation()}; }
};

// Why a task found no pack to act on.
struct ContextError {
    enum class Reason : std::uint32_t {
        // The region revision is not stored, it has no pack of the domain, or the pack is of a
        // format this build does not read.
        MetadataMissing = 0,
        // The pack exists but has changed state since the answer's request was issued.
        Outdated = 1,
    };

    std::string regionId;
    std::uint32_t revision = 0;
    OfflineDataDomain domain = OfflineDataDomain::Maps;
    Reason reason = Reason::MetadataMissing;

    friend bool operator==(const ContextError&, const ContextError&) = default;
};

using ContextResult = expected<Context, ContextError>;

}  // namespace terrane::common
