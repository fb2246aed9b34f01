#include "reachability/reachability_handle.hpp"

namespace terrane::common {

// A build without a platform source of reachability: every service answers NotReachable.
std::unique_ptr<ReachabilityHandle> createReachabilityHandle(const optional<std::string>&) {
    return nullptr;
}

}  // namespace terrane::common
