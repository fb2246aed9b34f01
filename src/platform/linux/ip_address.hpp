#pragma once

#include <array>
#include <cstdint>

namespace terrane::common {

// An IPv4 or IPv6 address in network byte order, as the kernel's routing messages carry it.
struct IpAddress {
    int family = 0;  // AF_INET or AF_INET6
    std::array<std::uint8_t, 16> bytes{};

    bool operator==(const IpAddress&) const = default;
};

}  // namespace terrane::common
