#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "reachability/reachability_handle.hpp"
#include "reachability/reachability_notification_center.hpp"
#include "terrane/reachability/reachability_interface.hpp"

namespace terrane::common {

// The core reachability service: it owns one platform handle and, while started, observes the
// process-wide notification center; on every notification it queries its handle once and calls
// its listeners in order with that status. See ReachabilityInterface for the threads.
class ReachabilityService final : public ReachabilityInterface, private ReachabilityObserver {
  public:
    // Takes ownership of the handle; a null handle answers NotReachable and never notifies.
    // The center defaults to the process-wide one and is borrowed; it must outlive the service.
    explicit ReachabilityService(
        std::unique_ptr<ReachabilityHandle> handle,
        ReachabilityNotificationCenter& center = ReachabilityNotificationCenter::processWide());
    // Stops; after it returns no listener of this service runs (see stop()).
    ~ReachabilityService() override;
    ReachabilityService(const ReachabilityService&) = delete;
    ReachabilityService& operator=(const ReachabilityService&) = delete;

    void addListener(std::function<void(NetworkStatus)>&& listener) override;
    bool isReachable() override;
    NetworkStatus currentNetworkStatus() override;
    void start() override;
    void stop() override;

  private:
    // The monitor thread, through the center.
    void reachabilityChanged() override;

    std::unique_ptr<ReachabilityHandle> handle_;
    ReachabilityNotificationCenter& center_;
    std::vector<std::function<void(NetworkStatus)>> listeners_;
};

}  // namespace terrane::common
