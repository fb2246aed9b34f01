#pragma once

#include <memory>
#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/reachability/reachability_interface.hpp"

namespace terrane::common {

// Creates reachability services. Each call makes a new, stopped service that the caller owns;
// destroying it stops it (see ReachabilityInterface::stop).
class TERRANE_EXPORT ReachabilityFactory {
  public:
    ReachabilityFactory() = delete;

    // Any thread. With a hostname (a name or a numeric IPv4/IPv6 address) the service tells
    // whether that host can be reached; without one, whether the network in general can be.
    // Never fails: where the platform offers no reachability, the service answers NotReachable.
    static std::shared_ptr<ReachabilityInterface> reachability(
        const optional<std::string>& hostname);
};

}  // namespace terrane::common
