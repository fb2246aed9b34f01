#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "offline/worker_thread.hpp"
#include "terrane/offline/offline_data.hpp"
#include "terrane/offline/offline_service.hpp"
#include "terrane/offline/offline_service_observer.hpp"

namespace terrane::common {

// Ordered by the observers' addresses; an observer appears at most once.
using OfflineServiceObservers = std::set<std::shared_ptr<OfflineServiceObserver>>;

// The offline service's state and operations. It lives on the service's worker thread
// (WorkerThread<OfflineServiceWorker>): it is constructed there, every member below runs there
// as a posted task or from another member, and it is destroyed there. Nothing in it is locked.
// It may also be constructed and driven directly on one thread, with a Proxy that has no queue.
class OfflineServiceWorker {
  public:
    // Applies the default endpoint, queues the first idle check, reads the stored state and then
    // tells every observer onInitialized().
    OfflineServiceWorker(Proxy<OfflineServiceWorker> proxy, const std::string& path,
                         const OfflineServiceOptions& options, OfflineServiceObservers observers);

    OfflineServiceWorker(const OfflineServiceWorker&) = delete;
    OfflineServiceWorker& operator=(const OfflineServiceWorker&) = delete;

    // Catalogue and pack operations posted by the facade.
    // Not answered yet: the callback is neither called nor kept.
    void listAvailableRegions(AvailableRegionsCallback callback);
    // Does nothing yet.
    void downloadPack(OfflineDataDomain domain, const OfflineDataRegionMetadata& region);
    // Does nothing yet.
    void cancelPackDownload(OfflineDataDomain domain, const OfflineDataRegionMetadata& region);
    // Does nothing yet.
    void deletePack(OfflineDataDomain domain, const OfflineDataRegionMetadata& region);

    // Attaches an observer (null is ignored). A new observer of an initialized worker is told the
    // current state, and only it: onInitialized(), then onIdle() if the worker is idle. One that
    // is already attached is told nothing.
    void addObserver(std::shared_ptr<OfflineServiceObserver> observer);
    // Detaches an observer; null is ignored.
    void removeObserver(std::shared_ptr<OfflineServiceObserver> observer);

    // The idle check, always posted at TaskPriority::Idle so that it runs once no ordinary task is
    // queued. Tells every observer onIdle() once per busy period, when nothing is outstanding.
    void sendIdleNotification();

    // Called at the start of every pack operation: the next idle check will report again, and
    // one is queued unless one already is.
    void markBusy();

    // Tells every observer the pack's state through the callback that matches pack.status. An
    // observer that throws does not stop the others; the failure becomes a log message.
    void notifyPack(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                    const OfflineDataPack& pack);

    // Calls the one state callback of `observer` that matches pack.status. Deleting is announced
    // only by onDeleting with its acknowledgement, never through here: it aborts the process.
    static void notifyPackObserver(OfflineServiceObserver& observer, OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region,
                                   const OfflineDataPack& pack);

    // Formats a diagnostic printf-style and hands it to every observer's onLogMessage.
    void logMessage(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // The catalogue endpoint in use: the options' base URL, or the default when that is absent
    // or empty.
    const std::string& getBaseURL() const noexcept { return baseURL; }
    // The directory below which every file of this service lives.
    const std::filesystem::path& getRoot() const noexcept { return root; }

  private:
    std::filesystem::path storageRoot(const std::string& path) const;
    void initialize();
    void sendLogMessage(const std::string& message);
    // For reports about a failing observer: one more throwing observer must not escape either.
    void sendLogMessageIgnoringFailures(const std::string& message) noexcept;

    Proxy<OfflineServiceWorker> proxy;
    std::string baseURL;
    std::string username;
    std::string accessToken;
    std::filesystem::path root;
    OfflineServiceObservers observers;
    bool initialized = false;
    bool idleReported = false;
    std::uint32_t activeDownloads = 0;
    std::uint32_t pendingDeletions = 0;
    std::uint32_t pendingCancellations = 0;
    // The constructor queues the first check.
    bool idleCheckPosted = true;
};

}  // namespace terrane::common
