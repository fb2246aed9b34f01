#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "terrane/client/pack_state.hpp"
#include "terrane/offline/offline_service_observer.hpp"

namespace terrane::common {

// A service observer that lives for one replay. Registering it queues its attachment behind
// every task posted to the service before; the service then replays the state of every visible
// pack to it alone and says onInitialized, on which it hands the packs to `done` and unregisters
// itself. So it is both a snapshot of the storage and a barrier in the service's queue.
//
// Threads: the callbacks run on the service's worker thread, and so does `done`.
class SnapshotObserver final : public OfflineServiceObserver,
                               public std::enable_shared_from_this<SnapshotObserver> {
  public:
    using Done = std::function<void(std::vector<PackState>)>;

    // Registers a new one with the service; `done` runs at most once.
    static std::shared_ptr<SnapshotObserver> start(Done done);
    // Unregisters it, should its replay not have come; harmless after it came.
    void abandon();

    explicit SnapshotObserver(Done done) : done_(std::move(done)) {}

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
    void onInitialized() override;

  private:
    void record(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                const OfflineDataPack& pack);

    // Worker thread only.
    Done done_;
    std::vector<PackState> packs_;
    bool replayed_ = false;
};

}  // namespace terrane::common
