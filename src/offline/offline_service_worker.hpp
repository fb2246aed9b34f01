#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "offline/context.hpp"
#include "offline/offline_data_pack_holder.hpp"
#include "offline/offline_data_region_internal.hpp"
#include "offline/storage_lock.hpp"
#include "offline/worker_thread.hpp"
#include "terrane/http/http_service_interface.hpp"
#include "terrane/offline/offline_data.hpp"
#include "terrane/offline/offline_service.hpp"
#include "terrane/offline/offline_service_observer.hpp"
#include "terrane/util/rfc3339.hpp"

namespace terrane::common {

// Ordered by the observers' addresses; an observer appears at most once.
using OfflineServiceObservers = std::set<std::shared_ptr<OfflineServiceObserver>>;

// Every region revision the worker knows, ordered by region id, then revision.
using OfflineDataRegions = std::map<RegionKey, OfflineDataRegionInternal>;

// The options' base URL, or the default catalogue endpoint when it is absent or empty.
std::string effectiveBaseURL(const optional<std::string>& baseURL);

// The offline service's state and operations. It lives on the service's worker thread
// (WorkerThread<OfflineServiceWorker>): it is constructed there, every member below runs there
// as a posted task or from another member, and it is destroyed there. Nothing in it is locked.
// It may also be constructed and driven directly on one thread, with a Proxy that has no queue.
//
// The members are implemented by concern: construction and the public operations in
// offline_service_worker.cpp, start-up recovery in worker_recovery.cpp, observer notification
// and the idle check in worker_observers.cpp, context loading in worker_context.cpp; the pack
// lifecycle in worker_download.cpp, worker_verification.cpp, worker_lease.cpp and
// worker_deletion.cpp.
class OfflineServiceWorker {
  public:
    // Applies the default endpoint, settles the storage root below `path`, queues the first idle
    // check, locks the root, recovers the stored packs (telling observers about every visible one
    // and queueing their follow-ups) and then tells every observer onInitialized(). Never throws
    // for anything found on disk: problems become log messages to the observers. A root locked by
    // another process is left alone: the worker logs storageInUseMessage() and recovers nothing.
    OfflineServiceWorker(Proxy<OfflineServiceWorker> proxy, const std::string& path,
                         const OfflineServiceOptions& options, OfflineServiceObservers observers);

    OfflineServiceWorker(const OfflineServiceWorker&) = delete;
    OfflineServiceWorker& operator=(const OfflineServiceWorker&) = delete;

    // ---- Catalogue and pack operations posted by the facade --------------------------------

    // Asks the catalogue endpoint for its listing and hands the outcome to `callback` later, on
    // this thread (at once, with Connection "HTTP Service is not available", when there is no
    // HTTP service). Never called if the worker is gone before the answer arrives; an empty
    // callback asks nothing. Not a pack operation: it leaves the idle bookkeeping alone.
    void listAvailableRegions(AvailableRegionsCallback callback);
    // The three pack operations refuse a region whose id cannot be a directory name below the
    // storage root: they touch nothing and log "Invalid region id '<id>'". Otherwise they find
    // (or make) the region's entry and act by the pack's status (worker_download.cpp and
    // worker_deletion.cpp):
    // downloadPack starts a full download (Incomplete, Errored, Deleted, most Expired packs), a
    // re-authorisation (an Expired pack with a stored file and entity tag), or undoes a deletion
    // still waiting for acknowledgements; a pack under way or Available is left alone.
    // cancelPackDownload stops a download (the pack becomes Incomplete, or Expired when its lease
    // is over; the partial file stays for resuming) or a pending verification; for any other
    // status it only logs "Skipped cancellation of ...: Pack is not downloading".
    // deletePack removes a pack: at once when nothing may be reading it, after the HTTP service
    // confirms the cancellation when its download is in flight, and after every observer has
    // acknowledged onDeleting when it is Available or Expired.
    void downloadPack(OfflineDataDomain domain, OfflineDataRegionMetadata&& region);
    void cancelPackDownload(OfflineDataDomain domain, OfflineDataRegionMetadata&& region);
    void deletePack(OfflineDataDomain domain, OfflineDataRegionMetadata&& region);

    // ---- Follow-ups posted by the worker itself --------------------------------------------

    // Checks a downloaded pack file; posted by start-up for every pack found Verifying.
    void verifyPackDownload(PackKey key);
    // Asks the server to extend an Available pack's lease; posted by start-up for every pack
    // whose lease is in its second half.
    void extendPackDownloadLease(PackKey key);

    // ---- Pack lifecycle: answers from other threads ----------------------------------------
    // Posted at TaskPriority::Normal by the callbacks handed to the HTTP service and to
    // observers, each with the key the request was issued under. An answer whose key is outdated
    // (the pack changed state since) is dropped without a word. Answers still queued when the
    // worker thread begins to stop are handled as usual, but no new HTTP exchange is started
    // then: a download, re-authorisation or lease extension waits for the next start, and a
    // verification too (the header record says the file still needs one).

    // A download's status report: progress keeps the key valid; a final state ends the download
    // (Errored, or the header record written and a verification queued).
    void updatePackDownloadProgress(PackKey key, DownloadStatus status);
    // The answer to a lease extension: the lease and header record renewed, or a log line.
    void finishExtendPackDownloadLease(PackKey key, HttpResponse response);
    // The answer to a re-authorisation: Available, or Expired (with the error, if any) and the
    // pack file removed.
    void finishPackReauth(PackKey key, HttpResponse response);
    // An observer's acknowledgement of onDeleting. Harmless when repeated.
    void confirmPackDeletion(PackKey key, std::weak_ptr<OfflineServiceObserver> observer);
    // The HTTP service has cancelled a deleted pack's download: its files go now.
    void finishPackDeletion(PackKey key);
    // The HTTP service has cancelled a download on request. Carries no key: it only settles the
    // count of outstanding cancellations.
    void finishCancelPackDownloadInternal();

    // The worker thread has been asked to stop: the remaining tasks are the tail of a shutdown.
    // Never true for a worker driven without a queue.
    bool shuttingDown() const { return proxy.stopping(); }

    // ---- Catalogue (worker_catalogue.cpp) --------------------------------------------------

    // listAvailableRegions once the HTTP service has been looked up: sends the listing through
    // `http`, or, when it is null, answers at once with Connection "HTTP Service is not
    // available".
    void requestAvailableRegions(HttpServiceInterface* http, AvailableRegionsCallback callback);
    // A "terrane://offline-data/<rest>" address expanded onto baseURL with the access token (see
    // expandOfflineDataURL); any other address unchanged.
    std::string formatURL(const std::string& url) const;
    // The listing's answer, brought back from the HTTP service: a transport failure becomes
    // Connection with its message, a response is read by parseAvailableRegionsList. Failure
    // messages reach the callback with the access token masked.
    void receiveAvailableRegions(HttpResponse response, AvailableRegionsCallback callback);
    // The message with the access token (and its percent-encoded forms) masked. Every failure
    // text that may quote a request URL or a server's words must pass through here before it
    // leaves the worker.
    std::string redactAccessToken(const std::string& message) const;

    // ---- Observers -------------------------------------------------------------------------

    // Attaches an observer (null is ignored). A new observer of an initialized worker is told
    // the current state, and only it: every visible stored pack through its state callback (in
    // region order, maps before navigation), then onInitialized(), then onIdle() if the worker
    // is idle. One that is already attached is told nothing.
    void addObserver(std::shared_ptr<OfflineServiceObserver> observer);
    // Detaches an observer (null is ignored) and withdraws every deletion acknowledgement it
    // still owed, so that no deletion waits for an observer that left.
    void removeObserver(std::shared_ptr<OfflineServiceObserver> observer);

    // The idle check, always posted at TaskPriority::Idle so that it runs once no ordinary task is
    // queued. Tells every observer onIdle() once per busy period, when nothing is outstanding.
    void sendIdleNotification();

    // The common prologue of every operation that has found its pack: the next idle check will
    // report again, and one is queued unless one already is.
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

    // Formats a diagnostic printf-style and hands it to every observer's onLogMessage. An
    // observer that throws from there is passed over.
    void logMessage(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // ---- Contexts ----------------------------------------------------------------------------

    // For the public operations: finds the region revision, storing a new entry (both packs
    // Deleted) made from `region` when there is none, then as loadContext(domain, entry).
    ContextResult loadContext(OfflineDataDomain domain, OfflineDataRegionMetadata&& region);
    // Fails with MetadataMissing when the region has no pack of the domain, or, after logging
    // "metadata specifies wrong format", when the pack is of another format than this build's.
    ContextResult loadContext(OfflineDataDomain domain, OfflineDataRegionInternal& region);
    // For answers from other threads: MetadataMissing when the region revision is not stored
    // (or as above), Outdated when the holder's generation differs from the key's.
    ContextResult loadContext(const PackKey& key);
    // The prologue of a public pack operation: the region id must be usable as a directory
    // name, the context must load (the failure is logged), and then the worker is marked busy.
    // On a tree still held by another process (see retakeStorage) the pack becomes Errored
    // (Filesystem, storageInUseMessage()). Empty when the operation stops there.
    optional<Context> beginPackOperation(OfflineDataDomain domain,
                                         OfflineDataRegionMetadata&& region);
    // The prologue of an answer or follow-up carrying a key: as above with loadContext(key) (an
    // outdated key is dropped silently).
    optional<Context> beginAnswer(const PackKey& key);
    // Outdated says nothing; MetadataMissing logs "Failed to retrieve metadata for <domain> pack
    // of revision <revision> of offline region '<id>'".
    void logContextError(const ContextError& error);

    // ---- Deletion acknowledgements -----------------------------------------------------------

    // One observer's acknowledgement of the context's deletion, also when it leaves: it is no
    // longer awaited; once nobody is, completeAcknowledgedDeletion() runs.
    void removeObserverInternal(Context& context,
                                const std::shared_ptr<OfflineServiceObserver>& observer);

    // ---- Inspection ----------------------------------------------------------------------------

    // The catalogue endpoint in use: the options' base URL, or the default when that is absent
    // or empty.
    const std::string& getBaseURL() const noexcept { return baseURL; }
    // The directory below which every file of this service lives: the service path, then the
    // account directory of this endpoint and user.
    const std::filesystem::path& getRoot() const noexcept { return root; }
    // Every region revision known, recovered or asked for.
    const OfflineDataRegions& getRegions() const noexcept { return regions; }

  private:
    // worker_recovery.cpp
    void initialize();
    // Start-up's clean-up of the temporaries a killed holder left in `directory`.
    void removeInterruptedWrites(const std::filesystem::path& directory) const;
    void loadExistingRegion(const std::filesystem::path& regionDirectory);
    // Recovers one revision directory of a region, or logs why it is skipped or ignored.
    void loadExistingRevision(const std::string& regionId,
                              const std::filesystem::directory_entry& entry);
    void loadExistingPack(OfflineDataPackHolder& holder,
                          const std::filesystem::path& revisionDirectory, OfflineDataDomain domain,
                          const OfflineDataPackMetadata& pack);
    void recoverPack(OfflineDataRegionInternal& region, OfflineDataDomain domain,
                     util::TimePoint now);

    // offline_service_worker.cpp: the entry check of the public pack operations.
    bool acceptRegionId(const std::string& id);
    // For a worker whose tree another process held: one attempt to take it over; when it
    // succeeds, the stored packs are recovered (and told) as at a start, without onInitialized.
    void retakeStorage();
    // The HTTP service in force, asked of HttpServiceFactory when first needed and kept from then
    // on; null while there is none (the caller reports "HTTP Service is not available").
    HttpServiceInterface* acquireHttpService();

    // ---- Pack lifecycle ------------------------------------------------------------------------
    // worker_download.cpp, worker_verification.cpp, worker_lease.cpp, worker_deletion.cpp
    // When the catalogue now describes the pack's file differently (address, size or checksum)
    // and the pack is not Available nor under way: takes the new description, removes what was
    // fetched by the old one and returns true (a full download follows). Otherwise false.
    bool adoptRepublishedPack(Context& context, const OfflineDataPackMetadata& asked);
    // During shutdown: logs that the download is skipped and returns true.
    bool refuseExchangeAtShutdown(const Context& context);
    void downloadPackInternal(Context& context);
    void finishPackDownload(Context& context, DownloadStatus&& status);
    // A download that reported more bytes than the pack has: cancelled, its files removed, and
    // the pack Errored with Corrupt.
    void abandonOversizedDownload(Context& context);
    // Removes the download file and what the HTTP service keeps beside it for resuming; a file
    // that cannot be removed is left (a later deletion tries again).
    void removeDownloadFiles(const Context& context);
    // Whether the storage file system has room for the rest of the pack (its size less what a
    // resumable partial file already holds); if not, the pack is Errored with Filesystem "Not
    // enough disk space: ...". A file system that cannot be asked is given the benefit of the
    // doubt: the download itself will fail if it really is full.
    bool checkFreeSpace(Context& context, bool resume);
    void reauthPackInternal(Context& context);
    // The HEAD request with "If-None-Match" shared by lease extension and re-authorisation.
    HttpRequest conditionalRequest(const Context& context) const;
    void cancelPackDownloadInternal(Context& context);
    void deletePackInternal(Context& context);
    // Removes the pack's header record, pack file, download file and the HTTP service's resume
    // files beside it; then Deleted (told once), or Errored with Filesystem.
    void finalizePackDeletion(Context& context);
    void undeletePackInternal(Context& context);
    // Tells every observer the context's pack as it is now.
    void notifyContext(const Context& context);
    // setError with the code and message, then notifyContext.
    void failPack(Context& context, OfflineDataErrorCode code, std::string message);

    // worker_observers.cpp
    // notifyPackObserver, with the exception guard of notifyPack.
    void notifyPackObserverGuarded(OfflineServiceObserver& observer, OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region,
                                   const OfflineDataPack& pack);
    // The last awaited acknowledgement of the context's deletion has come in (or its observer
    // left): the deletion is no longer pending, and the files go (worker_deletion.cpp).
    void completeAcknowledgedDeletion(Context& context);
    // Hands the message to every observer's onLogMessage; one that throws is passed over.
    void sendLogMessage(const std::string& message) noexcept;

    Proxy<OfflineServiceWorker> proxy;
    std::string baseURL;
    std::string username;
    std::string accessToken;
    std::filesystem::path root;
    std::shared_ptr<HttpServiceInterface> httpService;
    OfflineServiceObservers observers;
    OfflineDataRegions regions;
    bool initialized = false;
    bool idleReported = false;
    std::uint32_t activeDownloads = 0;
    std::uint32_t pendingDeletions = 0;
    std::uint32_t pendingCancellations = 0;
    // The constructor queues the first check.
    bool idleCheckPosted = true;
    // The tree's lock, held for the worker's life; or, when another process holds it, who does:
    // then every pack operation fails with storageInUseMessage() and no file is touched, until
    // one finds the tree free.
    StorageLock storageLock;
    optional<OfflineStorageHolder> storageHolder;
};

}  // namespace terrane::common
