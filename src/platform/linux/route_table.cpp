#include "platform/linux/route_table.hpp"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace terrane::common {
namespace {

constexpr std::size_t kBufferSize = 32 * 1024;

void collectExits(const rtmsg* route, std::size_t length, std::vector<RouteExit>& exits) {
    RouteExit first;
    bool hasLink = false;
    std::vector<int> paths;
    for (auto* attribute = RTM_RTA(route); RTA_OK(attribute, length);
         attribute = RTA_NEXT(attribute, length)) {
        if (attribute->rta_type == RTA_OIF) {
            std::memcpy(&first.linkIndex, RTA_DATA(attribute), sizeof(int));
            hasLink = true;
        } else if (attribute->rta_type == RTA_PRIORITY) {
            std::memcpy(&first.priority, RTA_DATA(attribute), sizeof(std::uint32_t));
        } else if (attribute->rta_type == RTA_MULTIPATH) {
            auto* hop = static_cast<const rtnexthop*>(RTA_DATA(attribute));
            auto left = static_cast<int>(RTA_PAYLOAD(attribute));
            while (RTNH_OK(hop, left)) {
                paths.push_back(hop->rtnh_ifindex);
                left -= static_cast<int>(RTNH_ALIGN(hop->rtnh_len));
                hop = RTNH_NEXT(hop);
            }
        }
    }
    if (hasLink) {
        exits.push_back(first);
    }
    for (const int link : paths) {
        exits.push_back({link, first.priority});
    }
}

std::uint32_t routeTable(const rtmsg* route, std::size_t length) {
    for (auto* attribute = RTM_RTA(route); RTA_OK(attribute, length);
         attribute = RTA_NEXT(attribute, length)) {
        if (attribute->rta_type == RTA_TABLE) {
            std::uint32_t table = 0;
            std::memcpy(&table, RTA_DATA(attribute), sizeof table);
            return table;
        }
    }
    return route->rtm_table;
}

}  // namespace

optional<RouteTable> RouteTable::open() {
    base::io::FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!socket) {
        return nullopt;
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    if (::bind(socket.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        return nullopt;
    }
    return RouteTable(std::move(socket));
}

int RouteTable::exchange(void* request, std::size_t length, bool dump,
                         const std::function<void(const void* message)>& onMessage) {
    auto* header = static_cast<nlmsghdr*>(request);
    header->nlmsg_seq = ++sequence_;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(socket_.get(), request, length, 0, reinterpret_cast<sockaddr*>(&kernel),
                 sizeof kernel) < 0) {
        return -1;
    }
    std::vector<char> buffer(kBufferSize);
    for (;;) {
        const ssize_t received = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
        if (received < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        auto left = static_cast<unsigned>(received);
        for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
             NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
            if (message->nlmsg_seq != sequence_) {
                continue;
            }
            if (message->nlmsg_type == NLMSG_DONE) {
                return 0;
            }
            if (message->nlmsg_type == NLMSG_ERROR) {
                const auto* error = static_cast<const nlmsgerr*>(NLMSG_DATA(message));
                return -error->error;
            }
            onMessage(message);
            if (!dump) {
                return 0;
            }
        }
    }
}

optional<std::map<int, LinkState>> RouteTable::links() {
    struct {
        nlmsghdr header;
        ifinfomsg link;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.link.ifi_family = AF_UNSPEC;

    std::map<int, LinkState> links;
    const int status = exchange(&request, sizeof request, true, [&](const void* data) {
        const auto* message = static_cast<const nlmsghdr*>(data);
        if (message->nlmsg_type != RTM_NEWLINK) {
            return;
        }
        const auto* link = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
        LinkState state{.name = {}, .flags = link->ifi_flags, .type = link->ifi_type};
        auto length = static_cast<unsigned>(IFLA_PAYLOAD(message));
        for (auto* attribute = IFLA_RTA(link); RTA_OK(attribute, length);
             attribute = RTA_NEXT(attribute, length)) {
            if (attribute->rta_type == IFLA_IFNAME) {
                state.name = static_cast<const char*>(RTA_DATA(attribute));
            }
        }
        links[link->ifi_index] = std::move(state);
    });
    if (status != 0) {
        return nullopt;
    }
    return links;
}

optional<std::vector<RouteExit>> RouteTable::defaultRoutes() {
    struct {
        nlmsghdr header;
        rtmsg route;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.route.rtm_family = AF_UNSPEC;

    std::vector<RouteExit> exits;
    const int status = exchange(&request, sizeof request, true, [&](const void* data) {
        const auto* message = static_cast<const nlmsghdr*>(data);
        if (message->nlmsg_type != RTM_NEWROUTE) {
            return;
        }
        const auto* route = static_cast<const rtmsg*>(NLMSG_DATA(message));
        const std::size_t length = RTM_PAYLOAD(message);
        if (route->rtm_dst_len == 0 && route->rtm_type == RTN_UNICAST &&
            routeTable(route, length) == RT_TABLE_MAIN) {
            collectExits(route, length, exits);
        }
    });
    if (status != 0) {
        return nullopt;
    }
    return exits;
}

optional<std::vector<RouteExit>> RouteTable::routeTo(const IpAddress& destination) {
    struct {
        nlmsghdr header;
        rtmsg route;
        char attributes[64];
    } request{};
    const std::size_t addressLength = destination.family == AF_INET ? 4 : 16;
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.route.rtm_family = static_cast<unsigned char>(destination.family);
    request.route.rtm_dst_len = static_cast<unsigned char>(addressLength * 8);
    auto* attribute = reinterpret_cast<rtattr*>(request.attributes);
    attribute->rta_type = RTA_DST;
    attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(addressLength));
    std::memcpy(RTA_DATA(attribute), destination.bytes.data(), addressLength);
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg)) + RTA_ALIGN(attribute->rta_len);

    std::vector<RouteExit> exits;
    const int status = exchange(&request, request.header.nlmsg_len, false, [&](const void* data) {
        const auto* message = static_cast<const nlmsghdr*>(data);
        if (message->nlmsg_type == RTM_NEWROUTE) {
            collectExits(static_cast<const rtmsg*>(NLMSG_DATA(message)), RTM_PAYLOAD(message),
                         exits);
        }
    });
    if (status == 0) {
        return exits;
    }
    // The kernel's ways of saying "no route".
    if (status == ENETUNREACH || status == EHOSTUNREACH || status == EINVAL || status == ENETDOWN) {
        return std::vector<RouteExit>{};
    }
    return nullopt;
}

}  // namespace terrane::common
