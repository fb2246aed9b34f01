#include "terrane/reachability/reachability_factory.hpp"

#include "reachability/reachability_handle.hpp"
#include "reachability/reachability_service.hpp"

namespace terrane::common {

std::shared_ptr<ReachabilityInterface> ReachabilityFactory::reachability(
    const optional<std::string>& hostname) {
    // The service handed out is the very object the notifications reach: listeners added to it
    // later hear of every change.
    return std::make_shared<ReachabilityService>(createReachabilityHandle(hostname));
}

}  // namespace terrane::common
