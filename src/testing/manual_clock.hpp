#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

#include "terrane/client/client_clock.hpp"

namespace terrane::common::test {

// A ClientClock whose time moves only when the test advances it, so that retry schedules of
// minutes run at once. Every member may be called from any thread. Header-only, so that only the
// tests that use it need the client's objects.
class ManualClock final : public ClientClock {
  public:
    TimePoint now() const override { return TimePoint(ticks_.load()); }

    std::uint64_t subscribe(std::function<void()> wake) override {
        std::lock_guard lock(mutex_);
        subscribers_.emplace(next_, std::move(wake));
        return next_++;
    }

    void unsubscribe(std::uint64_t subscription) override {
        std::lock_guard lock(mutex_);
        subscribers_.erase(subscription);
    }

    // Moves the time on and wakes every subscriber.
    void advance(std::chrono::nanoseconds by) {
        ticks_.store(ticks_.load() + std::chrono::duration_cast<TimePoint::duration>(by));
        // Under the mutex, so that unsubscribe() returns only once no call is under way.
        std::lock_guard lock(mutex_);
        for (const auto& [number, wake] : subscribers_) {
            wake();
        }
    }

  private:
    std::atomic<TimePoint::duration> ticks_{std::chrono::hours(1)};
    std::mutex mutex_;
    std::map<std::uint64_t, std::function<void()>> subscribers_;
    std::uint64_t next_ = 1;
};

}  // namespace terrane::common::test
