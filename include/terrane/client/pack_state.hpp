#pragma once

#include "terrane/offline/offline_data.hpp"

namespace terrane::common {

// One pack of one region revision as the offline service last told it: what OfflineClient::stored()
// lists and what the client's observers receive. A plain record.
struct PackState {
    OfflineDataRegionMetadata region;
    OfflineDataDomain domain = OfflineDataDomain::Maps;
    // An Incomplete pack carries the path of its partial file and the bytes it holds; Deleting
    // and Deleted are only ever seen by observers.
    OfflineDataPack pack;
};

}  // namespace terrane::common
