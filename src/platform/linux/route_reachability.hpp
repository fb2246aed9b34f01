#pragma once

#include <vector>

#include "platform/linux/ip_address.hpp"
#include "reachability/reachability_flags.hpp"
#include "terrane/expected.hpp"

namespace terrane::common {

// The reachability flags as the kernel's routing state gives them, read afresh in the network
// namespace of the calling thread. Without `hostAddresses`: reachable when the main table has a
// default route over a link other than loopback; with them: when the kernel routes one of them.
// Connection required when the best such link exists but is not operationally up (up links are
// preferred, then the lowest route priority); WWAN when that link is a modem's, or when
// `metered` says the system's connection is paid by the byte. nullopt when the kernel cannot be
// asked. Any thread; blocks only on netlink.
optional<ReachabilityFlags> routeReachabilityFlags(const std::vector<IpAddress>* hostAddresses,
                                                   bool metered);

}  // namespace terrane::common
