#include "terrane/offline/offline_service.hpp"

#include <mutex>

#include "offline/offline_service_impl.hpp"
#include "offline/offline_service_worker.hpp"
#include "offline/offline_storage.hpp"
#include "offline/storage_lock.hpp"

namespace terrane::common {

// The registry (instance_(), instanceWorker_(), observers_()) is guarded by one mutex. Two rules
// keep it free of deadlocks:
// - The registry never holds a reference to a service, not even for a moment: it tells whether
//   one lives with weak_ptr::expired() and posts through a Proxy, neither of which owns anything.
//   Observer callbacks run on the worker thread and may call registerObserver(); had that call
//   locked the weak pointer, it could end up holding the last reference when the application
//   drops its own at the same moment, and the service would then try to join its own thread from
//   that thread. Without such references the registry never destroys a service, so the mutex is
//   never held while a worker thread is joined (which could wait for a callback that is waiting
//   for the mutex).
// - Under the mutex we only post, which takes the queue's mutex briefly, and start a new worker
//   thread, which does not wait for that thread. Posting under the mutex keeps the worker's adds
//   and removes in the order of the registry's own changes.
// getInstance() does take a reference, and hands it to its caller.

std::shared_ptr<OfflineService> OfflineService::getInstance(const std::string& path,
                                                            const OfflineServiceOptions& options) {
    std::lock_guard lock(OfflineServiceImpl::registryMutex());
    auto& slot = OfflineServiceImpl::instance_();
    if (auto live = slot.lock()) {
        // Deliberately ignores path and options: everyone shares the one live service.
        return live;
    }
    auto service = std::make_shared<OfflineService>(ConstructionKey{}, path, options);
    slot = service;
    OfflineServiceImpl::instanceWorker_() = service->impl->workerProxy();
    return service;
}

optional<OfflineStorageHolder> OfflineService::findStorageHolder(
    const std::string& path, const OfflineServiceOptions& options) {
    return StorageLock::findHolder(
        storageRoot(path, effectiveBaseURL(options.baseURL), options.username));
}

void OfflineService::registerObserver(const std::shared_ptr<OfflineServiceObserver>& observer) {
    if (!observer) {
        // A null entry would be handed to every future worker as an observer to call.
        return;
    }
    std::lock_guard lock(OfflineServiceImpl::registryMutex());
    if (!OfflineServiceImpl::observers_().insert(observer).second) {
        return;
    }
    if (!OfflineServiceImpl::instance_().expired()) {
        OfflineServiceImpl::instanceWorker_().post(TaskPriority::Normal,
                                                   &OfflineServiceWorker::addObserver, observer);
    }
}

void OfflineService::unregisterObserver(const std::shared_ptr<OfflineServiceObserver>& observer) {
    std::lock_guard lock(OfflineServiceImpl::registryMutex());
    if (OfflineServiceImpl::observers_().erase(observer) == 0) {
        return;
    }
    if (!OfflineServiceImpl::instance_().expired()) {
        OfflineServiceImpl::instanceWorker_().post(TaskPriority::Normal,
                                                   &OfflineServiceWorker::removeObserver, observer);
    }
}

OfflineService::OfflineService(ConstructionKey, const std::string& path,
                               const OfflineServiceOptions& options)
    : impl(std::make_unique<OfflineServiceImpl>(path, options)) {
}

// Out of line, where OfflineServiceImpl is complete; joins the worker thread.
OfflineService::~OfflineService() = default;

void OfflineService::listAvailableRegions(AvailableRegionsCallback callback) {
    impl->post(&OfflineServiceWorker::listAvailableRegions, std::move(callback));
}

void OfflineService::downloadPack(OfflineDataDomain domain,
                                  const OfflineDataRegionMetadata& region) {
    impl->post(&OfflineServiceWorker::downloadPack, domain, region);
}

void OfflineService::cancelPackDownload(OfflineDataDomain domain,
                                        const OfflineDataRegionMetadata& region) {
    impl->post(&OfflineServiceWorker::cancelPackDownload, domain, region);
}

void OfflineService::deletePack(OfflineDataDomain domain, const OfflineDataRegionMetadata& region) {
    impl->post(&OfflineServiceWorker::deletePack, domain, region);
}

}  // namespace terrane::common

void terrane_common_offline_service_register_observer(
    const std::shared_ptr<terrane::common::OfflineServiceObserver>& observer) {
    terrane::common::OfflineService::registerObserver(observer);
}

void terrane_common_offline_service_unregister_observer(
    const std::shared_ptr<terrane::common::OfflineServiceObserver>& observer) {
    terrane::common::OfflineService::unregisterObserver(observer);
}
