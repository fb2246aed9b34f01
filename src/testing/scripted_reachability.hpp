#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "terrane/reachability/reachability_interface.hpp"

namespace terrane::common::test {

// A ReachabilityInterface whose status the test sets; set() calls every listener on the test's
// thread, as the monitor thread would. Every member may be called from any thread. Header-only,
// so that only the tests that use it pull it in.
class ScriptedReachability final : public ReachabilityInterface {
  public:
    explicit ScriptedReachability(NetworkStatus status) : status_(status) {}

    void addListener(std::function<void(NetworkStatus)>&& listener) override {
        std::lock_guard lock(mutex_);
        listeners_.push_back(std::move(listener));
    }
    bool isReachable() override { return status_ != NetworkStatus::NotReachable; }
    NetworkStatus currentNetworkStatus() override { return status_; }
    void start() override { set(status_); }
    void stop() override {}

    void set(NetworkStatus status) {
        status_ = status;
        std::lock_guard lock(mutex_);
        for (const auto& listener : listeners_) {
            listener(status);
        }
    }

  private:
    std::atomic<NetworkStatus> status_;
    std::mutex mutex_;
    std::vector<std::function<void(NetworkStatus)>> listeners_;
};

}  // namespace terrane::common::test
