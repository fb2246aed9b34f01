#pragma once

#include <functional>
#include <string>

#include "terrane/export.hpp"
#include "terrane/offline/offline_data.hpp"

namespace terrane::common {

// What an application implements to hear from the offline service; it is the service's only
// channel for results, progress and diagnostics.
//
// Threads: every callback runs on the service's worker thread, one observer after the other. A
// callback that blocks stalls the whole service, so hand long work to another thread. Callbacks
// may call back into OfflineService (register or unregister observers, post operations); such
// calls only queue work and never wait for the worker.
//
// Ownership: the service keeps observers by shared pointer from registration until the worker
// has processed the unregistration, so an observer may be called a little after
// OfflineService::unregisterObserver returns.
//
// Every callback has a default that does nothing, except onDeleting, whose default acknowledges
// at once (an observer that never opens pack files has nothing to let go of). Override what you
// need.
class TERRANE_EXPORT OfflineServiceObserver {
  public:
    // One callback per pack state; `pack` tells the state, its file and byte count.
    virtual void onPending(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                           const OfflineDataPack& pack);
    virtual void onDownloading(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                               const OfflineDataPack& pack);
    virtual void onIncomplete(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                              const OfflineDataPack& pack);
    virtual void onVerifying(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                             const OfflineDataPack& pack);
    virtual void onAvailable(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                             const OfflineDataPack& pack);
    virtual void onExpired(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                           const OfflineDataPack& pack);
    virtual void onErrored(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                           const OfflineDataPack& pack);
    // The pack is about to be removed. The observer must call `acknowledge` exactly once, from any
    // thread, when it no longer uses the pack's files; the files stay until every observer has
    // acknowledged. Calling it after the service is gone is harmless.
    virtual void onDeleting(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                            const OfflineDataPack& pack, std::function<void()> acknowledge);
    virtual void onDeleted(OfflineDataDomain domain, const OfflineDataRegionMetadata& region);
    // The service has announced every stored pack to this observer.
    virtual void onInitialized();
    // Nothing is queued, downloading, cancelling or waiting to be deleted.
    virtual void onIdle();
    // A finished diagnostic line from the offline service.
    virtual void onLogMessage(const std::string& message);

    // Pure, so that only implementations are ever made.
    virtual ~OfflineServiceObserver() = 0;
};

}  // namespace terrane::common
