#include "reachability/reachability_flags.hpp"

namespace terrane::common {

NetworkStatus networkStatusForFlags(ReachabilityFlags flags) {
    using namespace reachability_flag;
    if ((flags & Reachable) == 0) {
        return NetworkStatus::NotReachable;
    }
    if ((flags & IsWWAN) != 0) {
        return NetworkStatus::ReachableViaWAN;
    }
    if ((flags & ConnectionRequired) != 0) {
        const bool comesUpByItself = (flags & (ConnectionOnDemand | ConnectionOnTraffic)) != 0;
        if (!comesUpByItself || (flags & InterventionRequired) != 0) {
            return NetworkStatus::NotReachable;
        }
    }
    return NetworkStatus::ReachableViaWiFi;
}

}  // namespace terrane::common
