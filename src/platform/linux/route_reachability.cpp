#include "platform/linux/route_reachability.hpp"

#include <net/if.h>

#include <algorithm>
#include <map>

#include "platform/linux/cellular_link.hpp"
#include "platform/linux/route_table.hpp"

namespace terrane::common {

optional<ReachabilityFlags> routeReachabilityFlags(const std::vector<IpAddress>* hostAddresses,
                                                   bool metered) {
    auto table = RouteTable::open();
    if (!table) {
        return nullopt;
    }
    const auto links = table->links();
    if (!links) {
        return nullopt;
    }
    std::vector<RouteExit> exits;
    if (hostAddresses == nullptr) {
        auto defaults = table->defaultRoutes();
        if (!defaults) {
            return nullopt;
        }
        exits = std::move(*defaults);
    } else {
        for (const IpAddress& address : *hostAddresses) {
            auto route = table->routeTo(address);
            if (!route) {
                return nullopt;
            }
            exits.insert(exits.end(), route->begin(), route->end());
        }
    }

    const LinkState* best = nullptr;
    std::uint32_t bestPriority = 0;
    const auto isUp = [](const LinkState& link) {
        return (link.flags & IFF_UP) != 0 && (link.flags & IFF_RUNNING) != 0;
    };
    for (const RouteExit& exit : exits) {
        const auto found = links->find(exit.linkIndex);
        if (found == links->end()) {
            continue;
        }
        const LinkState& link = found->second;
        // The network in general is not reached over loopback; a host may well be (127.0.0.1).
        if (hostAddresses == nullptr && (link.flags & IFF_LOOPBACK) != 0) {
            continue;
        }
        const bool better = best == nullptr || (isUp(link) && !isUp(*best)) ||
                            (isUp(link) == isUp(*best) && exit.priority < bestPriority);
        if (better) {
            best = &link;
            bestPriority = exit.priority;
        }
    }
    if (best == nullptr) {
        return ReachabilityFlags{0};
    }
    ReachabilityFlags flags = reachability_flag::Reachable;
    if (!isUp(*best)) {
        flags |= reachability_flag::ConnectionRequired;
    }
    if (metered || isCellularLink(best->name, best->type, readLinkUevent(best->name))) {
        flags |= reachability_flag::IsWWAN;
    }
    return flags;
}

}  // namespace terrane::common
