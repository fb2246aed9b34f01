#include "terrane/reachability/network_status.hpp"

namespace terrane::common {

std::string toString(NetworkStatus status) {
    switch (status) {
        case NetworkStatus::ReachableViaWiFi:
            return "WiFi";
        case NetworkStatus::ReachableViaWAN:
            return "WAN";
        case NetworkStatus::NotReachable:
        default:
            return "not reachable";
    }
}

}  // namespace terrane::common
