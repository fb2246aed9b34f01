#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/ip_address.hpp"
#include "terrane/expected.hpp"

namespace terrane::common {

// Resolves one host name on a thread of its own, so that nobody who asks for the addresses ever
// waits for DNS. The thread starts with the first resolve() and is joined by the destructor,
// which therefore waits for a lookup under way (the C library's resolver timeouts bound it).
class HostResolver {
  public:
    // `onChanged` runs on the resolver thread whenever a lookup ends with a different set of
    // addresses than the one before; it must only hand the news on.
    HostResolver(std::string host, std::function<void()> onChanged);
    ~HostResolver();
    HostResolver(const HostResolver&) = delete;
    HostResolver& operator=(const HostResolver&) = delete;

    // Any thread: asks for a fresh lookup; requests made while one runs are folded into one more.
    void resolve();

    // Any thread: the addresses of the latest lookup; empty before the first one ends and when
    // the host does not resolve.
    std::vector<IpAddress> addresses() const;

    // The address itself when `host` is a numeric IPv4 or IPv6 address, which needs no lookup.
    static optional<IpAddress> numeric(const std::string& host);

  private:
    void run();

    const std::string host_;
    const std::function<void()> onChanged_;
    mutable std::mutex mutex_;
    std::condition_variable wanted_;
    std::vector<IpAddress> addresses_;  // guarded by mutex_
    bool requested_ = false;            // guarded by mutex_
    bool stopping_ = false;             // guarded by mutex_
    std::thread thread_;                // started and joined under the owner's control
};

}  // namespace terrane::common
