#pragma once

// Addresses on 127.0.0.1 for the servers the tests and benchmarks start. Header-only.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace terrane::common::test {

inline sockaddr_in loopbackAddress(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// "http://127.0.0.1:<port>" followed by the path.
inline std::string loopbackUrl(std::uint16_t port, std::string_view path) {
    return "http://127.0.0.1:" + std::to_string(port) + std::string(path);
}

// A port that was free a moment ago: nothing listens there until someone binds it.
inline std::uint16_t freeLoopbackPort() {
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopbackAddress(0);
    socklen_t length = sizeof address;
    ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(probe);
    return ntohs(address.sin_port);
}

}  // namespace terrane::common::test
