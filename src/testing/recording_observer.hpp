#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "terrane/offline/offline_service_observer.hpp"

namespace terrane::common::test {

// An OfflineServiceObserver for tests that writes down every callback as one readable line:
//
//   onPending maps region-a/3 path=/x/maps/1.tmp bytes=0
//   onErrored navigation region-a/3 path= bytes=0 error=NotFound, message=gone
//   onDeleting maps region-a/3 path=/x/maps/1 bytes=10
//   onDeleted maps region-a/3
//   onInitialized
//   onIdle
//   onLogMessage Skipping revision 0 of offline region 'r': Invalid revision name
//
// Callbacks arrive on the worker thread; every member may be called from any thread. Waits give
// up after a generous deadlock guard (10 s) rather than hang a broken test.
class RecordingObserver : public OfflineServiceObserver {
  public:
    using Lines = std::vector<std::string>;
    static constexpr std::chrono::seconds deadlockGuard{10};

    // A copy of every line so far, in arrival order.
    Lines lines() const {
        std::lock_guard lock(mutex);
        return recorded;
    }

    // Waits until `line` has been recorded at least `times` times.
    bool waitFor(const std::string& line, std::size_t times = 1) const {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, deadlockGuard, [&] {
            return static_cast<std::size_t>(std::ranges::count(recorded, line)) >= times;
        });
    }

    // From now on, `callback` (a name such as "onAvailable") records its line and then throws
    // std::runtime_error(message); with `standard` false it throws a value of no standard
    // exception type (the message as a std::string) instead.
    void throwFrom(const std::string& callback, const std::string& message, bool standard = true) {
        std::lock_guard lock(mutex);
        faults[callback] = [message, standard] {
            if (standard) {
                throw std::runtime_error(message);
            }
            throw message;
        };
    }

    // The next call of `callback` records its line and then blocks the calling (worker) thread
    // until resume(), or until the guard runs out. Lets a test queue work behind a busy worker.
    void pauseIn(const std::string& callback) {
        std::lock_guard lock(mutex);
        pauseCallback = callback;
    }
    void resume() {
        std::lock_guard lock(mutex);
        pauseCallback.clear();
        changed.notify_all();
    }

    // The acknowledgement callbacks received with onDeleting, in order; taking them empties the
    // list. The caller calls them when and where the test wants.
    std::vector<std::function<void()>> takeAcknowledgements() {
        std::lock_guard lock(mutex);
        return std::exchange(acknowledgements, {});
    }

    void onPending(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                   const OfflineDataPack& pack) override {
        recordPack("onPending", domain, region, pack);
    }
    void onDownloading(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                       const OfflineDataPack& pack) override {
        recordPack("onDownloading", domain, region, pack);
    }
    void onIncomplete(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                      const OfflineDataPack& pack) override {
        recordPack("onIncomplete", domain, region, pack);
    }
    void onVerifying(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                     const OfflineDataPack& pack) override {
        recordPack("onVerifying", domain, region, pack);
    }
    void onAvailable(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                     const OfflineDataPack& pack) override {
        recordPack("onAvailable", domain, region, pack);
    }
    void onExpired(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                   const OfflineDataPack& pack) override {
        recordPack("onExpired", domain, region, pack);
    }
    void onErrored(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                   const OfflineDataPack& pack) override {
        recordPack("onErrored", domain, region, pack);
    }
    void onDeleting(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                    const OfflineDataPack& pack, std::function<void()> acknowledge) override {
        {
            std::lock_guard lock(mutex);
            acknowledgements.push_back(std::move(acknowledge));
        }
        recordPack("onDeleting", domain, region, pack);
    }
    void onDeleted(OfflineDataDomain domain, const OfflineDataRegionMetadata& region) override {
        std::ostringstream line;
        line << "onDeleted " << toString(domain) << ' ' << region;
        record("onDeleted", line.str());
    }
    void onInitialized() override { record("onInitialized", "onInitialized"); }
    void onIdle() override { record("onIdle", "onIdle"); }
    void onLogMessage(const std::string& message) override {
        record("onLogMessage", "onLogMessage " + message);
    }

  private:
    void recordPack(const char* callback, OfflineDataDomain domain,
                    const OfflineDataRegionMetadata& region, const OfflineDataPack& pack) {
        std::ostringstream line;
        line << callback << ' ' << toString(domain) << ' ' << region << " path=" << pack.path
             << " bytes=" << pack.bytes;
        if (pack.error) {
            line << ' ' << *pack.error;
        }
        record(callback, line.str());
    }

    // Appends the line, wakes waiters, then pauses or throws as the test asked.
    void record(const std::string& callback, std::string line) {
        std::unique_lock lock(mutex);
        recorded.push_back(std::move(line));
        changed.notify_all();
        if (!pauseCallback.empty() && pauseCallback == callback) {
            changed.wait_for(lock, deadlockGuard, [this] { return pauseCallback.empty(); });
            pauseCallback.clear();
        }
        if (auto fault = faults.find(callback); fault != faults.end()) {
            const auto raise = fault->second;
            lock.unlock();
            raise();
        }
    }

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    Lines recorded;
    std::map<std::string, std::function<void()>> faults;
    std::string pauseCallback;
    std::vector<std::function<void()>> acknowledgements;
};

}  // namespace terrane::common::test
