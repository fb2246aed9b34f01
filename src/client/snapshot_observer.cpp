#include "client/snapshot_observer.hpp"

#include <utility>

#include "terrane/offline/offline_service.hpp"

namespace terrane::common {

std::shared_ptr<SnapshotObserver> SnapshotObserver::start(Done done) {
    auto observer = std::make_shared<SnapshotObserver>(std::move(done));
    OfflineService::registerObserver(observer);
    return observer;
}

void SnapshotObserver::abandon() {
    OfflineService::unregisterObserver(shared_from_this());
}

void SnapshotObserver::record(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                              const OfflineDataPack& pack) {
    // After the replay it hears live changes until its unregistration is processed: not ours.
    if (!replayed_) {
        packs_.push_back(PackState{region, domain, pack});
    }
}

void SnapshotObserver::onPending(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                 const OfflineDataPack& pack) {
    record(domain, region, pack);
}

void SnapshotObserver::onDownloading(OfflineDataDomain domain,
                                     const OfflineDataRegionMetadata& region,
                                     const OfflineDataPack& pack) {
    record(domain, region, pack);
}

void SnapshotObserver::onIncomplete(OfflineDataDomain domain,
                                    const OfflineDataRegionMetadata& region,
                                    const OfflineDataPack& pack) {
    record(domain, region, pack);
}

void SnapshotObserver::onVerifying(OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region,
                                   const OfflineDataPack& pack) {
    record(domain, region, pack);
}

void SnapshotObserver::onAvailable(OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region,
                                   const OfflineDataPack& pack) {
    record(domain, region, pack);
}

void SnapshotObserver::onExpired(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                 const OfflineDataPack& pack) {
    record(domain, region, pack);
}

void SnapshotObserver::onErrored(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                 const OfflineDataPack& pack) {
    record(domain, region, pack);
}

void SnapshotObserver::onInitialized() {
    if (replayed_) {
        return;
    }
    replayed_ = true;
    auto done = std::exchange(done_, nullptr);
    if (done) {
        done(std::exchange(packs_, {}));
    }
    OfflineService::unregisterObserver(shared_from_this());
}

}  // namespace terrane::common
