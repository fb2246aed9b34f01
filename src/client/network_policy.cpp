#include "terrane/client/network_policy.hpp"

namespace terrane::common {

bool allowsDownloads(NetworkPolicy policy, NetworkStatus status) {
    switch (status) {
        case NetworkStatus::ReachableViaWiFi:
            return true;
        case NetworkStatus::ReachableViaWAN:
            return policy != NetworkPolicy::NotOverWAN;
        case NetworkStatus::NotReachable:
            return false;
    }
    return false;
}

}  // namespace terrane::common
