#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/ip_address.hpp"
#include "terrane/expected.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::common {

// A link as rtnetlink reports it.
struct LinkState {
    std::string name;
    unsigned flags = 0;       // IFF_UP, IFF_RUNNING, IFF_LOOPBACK, ...
    unsigned short type = 0;  // ARPHRD_*
};

// Where a route leaves the machine.
struct RouteExit {
    int linkIndex = 0;
    std::uint32_t priority = 0;
};

// Reads links and routes from the kernel over a NETLINK_ROUTE socket of its own, opened in the
// network namespace of the thread that opens it. One thread at a time; the object owns its
// socket. Every read is a fresh request: nothing is cached.
class RouteTable {
  public:
    // Empty when no netlink socket can be opened.
    static optional<RouteTable> open();

    // Every link by index; nullopt when the kernel does not answer.
    optional<std::map<int, LinkState>> links();

    // The exits of the main table's default routes, IPv4 and IPv6 (each path of a multipath
    // route counts); nullopt when the kernel does not answer.
    optional<std::vector<RouteExit>> defaultRoutes();

    // The exit the kernel would choose for `destination`: an empty vector when it has no route,
    // nullopt when it does not answer.
    optional<std::vector<RouteExit>> routeTo(const IpAddress& destination);

  private:
    explicit RouteTable(base::io::FileDescriptor socket) : socket_(std::move(socket)) {}

    // Sends the request and hands every answering message to `onMessage` until the dump ends or
    // the single answer arrived. Returns 0, or the kernel's (positive) error number, or -1 when
    // the socket failed.
    int exchange(void* request, std::size_t length, bool dump,
                 const std::function<void(const void* message)>& onMessage);

    base::io::FileDescriptor socket_;
    std::uint32_t sequence_ = 0;
};

}  // namespace terrane::common
