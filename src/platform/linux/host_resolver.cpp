#include "platform/linux/host_resolver.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace terrane::common {
namespace {

std::vector<IpAddress> lookUp(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
        return {};
    }
    std::vector<IpAddress> addresses;
    for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
        IpAddress address{.family = entry->ai_family, .bytes = {}};
        if (entry->ai_family == AF_INET) {
            const auto* v4 = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
            std::memcpy(address.bytes.data(), &v4->sin_addr, 4);
        } else if (entry->ai_family == AF_INET6) {
            const auto* v6 = reinterpret_cast<const sockaddr_in6*>(entry->ai_addr);
            std::memcpy(address.bytes.data(), &v6->sin6_addr, 16);
        } else {
            continue;
        }
        if (std::ranges::find(addresses, address) == addresses.end()) {
            addresses.push_back(address);
        }
    }
    ::freeaddrinfo(found);
    return addresses;
}

}  // namespace

HostResolver::HostResolver(std::string host, std::function<void()> onChanged)
    : host_(std::move(host)), onChanged_(std::move(onChanged)) {
}

HostResolver::~HostResolver() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wanted_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void HostResolver::resolve() {
    {
        const std::lock_guard lock(mutex_);
        requested_ = true;
        if (!thread_.joinable()) {
            thread_ = std::thread([this] { run(); });
        }
    }
    wanted_.notify_all();
}

std::vector<IpAddress> HostResolver::addresses() const {
    const std::lock_guard lock(mutex_);
    return addresses_;
}

optional<IpAddress> HostResolver::numeric(const std::string& host) {
    IpAddress address{.family = AF_INET, .bytes = {}};
    if (::inet_pton(AF_INET, host.c_str(), address.bytes.data()) == 1) {
        return address;
    }
    address.family = AF_INET6;
    if (::inet_pton(AF_INET6, host.c_str(), address.bytes.data()) == 1) {
        return address;
    }
    return nullopt;
}

void HostResolver::run() {
    ::pthread_setname_np(::pthread_self(), "terrane-resolve");
    std::unique_lock lock(mutex_);
    for (;;) {
        wanted_.wait(lock, [this] { return requested_ || stopping_; });
        if (stopping_) {
            return;
        }
        requested_ = false;
        lock.unlock();
        std::vector<IpAddress> fresh = lookUp(host_);
        lock.lock();
        if (fresh == addresses_) {
            continue;
        }
        addresses_ = std::move(fresh);
        lock.unlock();
        onChanged_();
        lock.lock();
    }
}

}  // namespace terrane::common
