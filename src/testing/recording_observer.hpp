#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>
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
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds deadlockGuard{10};

    // A copy of every line so far, in arrival order.
    Lines lines() const;
    // How many lines so far equal `line`.
    std::size_t count(const std::string& line) const;

    // Waits until `line` has been recorded at least `times` times.
    bool waitFor(const std::string& line, std::size_t times = 1) const;

    // From now on, `callback` (a name such as "onAvailable") records its line and then throws
    // std::runtime_error(message); with `standard` false it throws a value of no standard
    // exception type instead.
    void throwFrom(const std::string& callback, const std::string& message, bool standard = true);

    // The next call of `callback` records its line and then blocks the calling (worker) thread
    // until resume(), or until the guard runs out. Lets a test queue work behind a busy worker.
    void pauseIn(const std::string& callback);
    void resume();

    // The acknowledgement callbacks received with onDeleting, in order; taking them empties the
    // list. The caller calls them when and where the test wants.
    std::vector<std::function<void()>> takeAcknowledgements();

    void onPending(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                   const OfflineDataPack& pack) override;
    void onDownloading(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                       const OfflineDataPack& pack) override;
    void onIncomplete(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                      const OfflineDataPack& pack) override;
    void onVerifying(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                     const OfflineDataPack& pack) override;
    void onAvailable(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                     const OfflineDataPack& pack) override;
    void onExpired(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                   const OfflineDataPack& pack) override;
    void onErrored(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                   const OfflineDataPack& pack) override;
    void onDeleting(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                    const OfflineDataPack& pack, std::function<void()> acknowledge) override;
    void onDeleted(OfflineDataDomain domain, const OfflineDataRegionMetadata& region) override;
    void onInitialized() override;
    void onIdle() override;
    void onLogMessage(const std::string& message) override;

  private:
    struct Fault {
        std::string message;
        bool standard = true;
    };

    void recordPack(const char* callback, OfflineDataDomain domain,
                    const OfflineDataRegionMetadata& region, const OfflineDataPack& pack);
    // Appends the line, wakes waiters, then pauses or throws as the test asked.
    void record(const std::string& callback, std::string line);

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    Lines recorded;
    std::map<std::string, Fault> faults;
    std::string pauseCallback;
    std::vector<std::function<void()>> acknowledgements;
};

}  // namespace terrane::common::test
