#pragma once

#include <cstdint>
#include <string>

#include "terrane/export.hpp"

namespace terrane::common {

// How the network, or one host, can be reached at the moment.
enum class NetworkStatus : int32_t {
    NotReachable = 0,
    ReachableViaWiFi = 1,
    // Over a link paid by the byte: a cellular modem, or a connection the system reports metered.
    ReachableViaWAN = 2,
};

// "not reachable", "WiFi" or "WAN"; any other value reads as "not reachable".
TERRANE_EXPORT std::string toString(NetworkStatus status);

}  // namespace terrane::common
