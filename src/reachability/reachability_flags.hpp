#pragma once

#include <cstdint>

#include "terrane/reachability/network_status.hpp"

namespace terrane::common {

// The bits a platform reports about the path to the network or to a host. The values are the
// ones the original reachability handles published, so that recorded flags keep their meaning.
using ReachabilityFlags = std::uint32_t;

namespace reachability_flag {
inline constexpr ReachabilityFlags Reachable = 0x2;
inline constexpr ReachabilityFlags ConnectionRequired = 0x4;
inline constexpr ReachabilityFlags ConnectionOnTraffic = 0x8;
inline constexpr ReachabilityFlags InterventionRequired = 0x10;
inline constexpr ReachabilityFlags ConnectionOnDemand = 0x20;
inline constexpr ReachabilityFlags IsWWAN = 0x40000;
}  // namespace reachability_flag

// Reachable clear: NotReachable; else WWAN: ReachableViaWAN; else a required connection that
// will not come up by itself (or only with the user's help): NotReachable; else ReachableViaWiFi.
NetworkStatus networkStatusForFlags(ReachabilityFlags flags);

}  // namespace terrane::common
