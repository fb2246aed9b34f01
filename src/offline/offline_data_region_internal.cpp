#include "offline/offline_data_region_internal.hpp"

#include <cstdlib>

namespace terrane::common {

optional<OfflineDataPackMetadata>& OfflineDataRegionInternal::getPackMetadata(
    OfflineDataDomain domain) {
    const auto& self = *this;
    return const_cast<optional<OfflineDataPackMetadata>&>(self.getPackMetadata(domain));
}

const optional<OfflineDataPackMetadata>& OfflineDataRegionInternal::getPackMetadata(
    OfflineDataDomain domain) const {
    switch (domain) {
        case OfflineDataDomain::Maps:
            return metadata.mapPack;
        case OfflineDataDomain::Navigation:
            return metadata.navigationPack;
    }
    // A made-up domain would act on another pack's files.
    std::abort();
}

OfflineDataPackHolder& OfflineDataRegionInternal::getPackHolder(OfflineDataDomain domain) {
    const auto& self = *this;
    return const_cast<OfflineDataPackHolder&>(self.getPackHolder(domain));
}

const OfflineDataPackHolder& OfflineDataRegionInternal::getPackHolder(
    OfflineDataDomain domain) const {
    switch (domain) {
        case OfflineDataDomain::Maps:
            return mapsHolder;
        case OfflineDataDomain::Navigation:
            return navigationHolder;
    }
    std::abort();
}

}  // namespace terrane::common
