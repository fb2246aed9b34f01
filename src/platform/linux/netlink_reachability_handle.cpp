#include <memory>
#include <string>
#include <vector>

#include "platform/linux/host_resolver.hpp"
#include "platform/linux/netlink_monitor.hpp"
#include "platform/linux/route_reachability.hpp"
#include "reachability/reachability_handle.hpp"

namespace terrane::common {
namespace {

// Reachability on Linux: the flags come from the kernel's routing state (see
// routeReachabilityFlags), changes from the process-wide netlink monitor. A host name is
// resolved by a resolver of its own; a numeric address needs none.
class NetlinkReachabilityHandle final : public ReachabilityHandle {
  public:
    explicit NetlinkReachabilityHandle(const optional<std::string>& hostname)
        : monitor_(NetlinkMonitor::processWide()) {
        if (!hostname) {
            return;
        }
        if (auto address = HostResolver::numeric(*hostname)) {
            numeric_ = std::vector<IpAddress>{*address};
        } else {
            resolver_ = std::make_unique<HostResolver>(
                *hostname, [&monitor = monitor_] { monitor.requestNotification(); });
        }
    }

    ~NetlinkReachabilityHandle() override { stopNotifier(); }

    optional<ReachabilityFlags> flags() override {
        const bool metered = monitor_.meteredHint();
        if (numeric_) {
            return routeReachabilityFlags(&*numeric_, metered);
        }
        if (resolver_) {
            const std::vector<IpAddress> addresses = resolver_->addresses();
            return routeReachabilityFlags(&addresses, metered);
        }
        return routeReachabilityFlags(nullptr, metered);
    }

    bool startNotifier() override {
        if (!watcher_) {
            NetlinkMonitor::Hook hook;
            if (resolver_) {
                hook = [resolver = resolver_.get()] { resolver->resolve(); };
            }
            watcher_ = monitor_.addWatcher(std::move(hook));
        }
        if (resolver_) {
            resolver_->resolve();
        }
        return watcher_.has_value();
    }

    void stopNotifier() override {
        if (watcher_) {
            monitor_.removeWatcher(*watcher_);
            watcher_.reset();
        }
    }

  private:
    NetlinkMonitor& monitor_;
    optional<std::vector<IpAddress>> numeric_;
    std::unique_ptr<HostResolver> resolver_;
    optional<std::uint64_t> watcher_;
};

}  // namespace

std::unique_ptr<ReachabilityHandle> createReachabilityHandle(
    const optional<std::string>& hostname) {
    return std::make_unique<NetlinkReachabilityHandle>(hostname);
}

}  // namespace terrane::common
