#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "terrane/base/type_wrapper.hpp"
#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/offline/offline_data.hpp"
#include "terrane/offline/offline_service_observer.hpp"
#include "terrane/offline/offline_storage_holder.hpp"

namespace terrane::common {

class OfflineServiceImpl;

// Receives the region catalogue, or why it could not be read. Called on the service's worker
// thread; never called if the service is destroyed before the answer arrives.
using AvailableRegionsCallback =
    std::function<void(expected<std::vector<OfflineDataRegionMetadata>, OfflineDataError>)>;

// The offline data service: lists the regions that can be taken offline, downloads, cancels and
// deletes their packs, and reports every change to the registered observers. All work runs on
// one worker thread per service; the operations here only queue it and return at once.
//
// There is at most one live service per process, shared by everyone who asked for it through
// getInstance(). It lives while any shared pointer to it is held; releasing the last one runs the
// work still queued (answers that have arrived, acknowledged deletions), then stops and joins the
// worker thread. No new HTTP exchange starts once the release has begun: a download or lease
// renewal still queued then waits for the next service, and a listing is not answered. The last
// reference must therefore never be released on that thread: observer callbacks should not call
// getInstance() nor hold a service pointer of their own (registering and unregistering observers
// from them is fine).
//
// Threads: every member may be called from any thread. Operations posted from one thread reach
// the worker in the order they were made.
class TERRANE_EXPORT OfflineService {
    struct ConstructionKey {
        explicit ConstructionKey() = default;
    };

  public:
    // Returns the live service if there is one, whatever `path` and `options` say; otherwise
    // creates one that keeps its data below `path` and copies `options`. Every registered
    // observer is attached to a new service from its start. Throws std::system_error if the
    // worker thread cannot be started.
    static std::shared_ptr<OfflineService> getInstance(const std::string& path,
                                                       const OfflineServiceOptions& options);

    // Whether the storage tree that getInstance(path, options) would use is held by another
    // process, and by which. Reads only: creates nothing, and never waits. Empty when the tree is
    // free, does not exist yet, or is held by this process. Any thread; meant for waiting until
    // another process lets go before starting a service.
    static optional<OfflineStorageHolder> findStorageHolder(const std::string& path,
                                                            const OfflineServiceOptions& options);

    // Adds the observer to the process-wide set, which outlives services. The live service, if
    // any, replays its current state to a newly added observer on the worker thread. Adding an
    // observer that is already registered, or a null one, does nothing. The set keeps a shared
    // pointer until unregisterObserver.
    static void registerObserver(const std::shared_ptr<OfflineServiceObserver>& observer);

    // Removes the observer from the process-wide set and detaches it from the live service.
    // Unknown observers are ignored. Callbacks already under way on the worker thread may still
    // reach the observer shortly after this returns.
    static void unregisterObserver(const std::shared_ptr<OfflineServiceObserver>& observer);

    // Reads the region catalogue afresh and hands the result to `callback` on the worker thread.
    void listAvailableRegions(AvailableRegionsCallback callback);

    // Pack operations on a copy of `region`; their results arrive only through the observers.
    void downloadPack(OfflineDataDomain domain, const OfflineDataRegionMetadata& region);
    void cancelPackDownload(OfflineDataDomain domain, const OfflineDataRegionMetadata& region);
    void deletePack(OfflineDataDomain domain, const OfflineDataRegionMetadata& region);

    // Only getInstance() can make one (the key is private); it hands it out by shared pointer.
    OfflineService(ConstructionKey, const std::string& path, const OfflineServiceOptions& options);
    ~OfflineService();

    OfflineService(const OfflineService&) = delete;
    OfflineService& operator=(const OfflineService&) = delete;

    // The platform binding's slot for a weak reference to this object's current wrapper. Only the
    // binding touches it, from the thread it uses for this object.
    base::TypeWrapper peer;

  private:
    std::unique_ptr<OfflineServiceImpl> impl;
};

}  // namespace terrane::common

// Plain entry points for callers that cannot use the C++ class names; they behave exactly as
// OfflineService::registerObserver and OfflineService::unregisterObserver.
extern "C" TERRANE_EXPORT void terrane_common_offline_service_register_observer(
    const std::shared_ptr<terrane::common::OfflineServiceObserver>& observer);
extern "C" TERRANE_EXPORT void terrane_common_offline_service_unregister_observer(
    const std::shared_ptr<terrane::common::OfflineServiceObserver>& observer);
