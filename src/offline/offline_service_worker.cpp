#include "offline/offline_service_worker.hpp"

#include <utility>

#include "offline/offline_storage.hpp"
#include "offline/region_catalogue.hpp"
#include "terrane/http/http_service_factory.hpp"

namespace terrane::common {

std::string effectiveBaseURL(const optional<std::string>& baseURL) {
    if (!baseURL || baseURL->empty()) {
        return std::string(defaultCatalogueEndpoint);
    }
    return *baseURL;
}

OfflineServiceWorker::OfflineServiceWorker(Proxy<OfflineServiceWorker> proxy_,
                                           const std::string& path,
                                           const OfflineServiceOptions& options,
                                           OfflineServiceObservers observers_)
    : proxy(std::move(proxy_)),
      baseURL(effectiveBaseURL(options.baseURL)),
      username(options.username),
      accessToken(options.accessToken),
      root(storageRoot(path, baseURL, username)),
      observers(std::move(observers_)) {
    // Queued before anything else can be, and at Idle priority, so that it runs only after the
    // start-up follow-ups and whatever the facade posts meanwhile.
    proxy.post(TaskPriority::Idle, &OfflineServiceWorker::sendIdleNotification);
    if (auto lock = StorageLock::acquire(root)) {
        storageLock = std::move(*lock);
        initialize();
    } else {
        // Another process owns every file of the tree: nothing is read back, so nothing is
        // renewed, verified or reported either.
        storageHolder = std::move(lock.error());
        sendLogMessage(storageInUseMessage(*storageHolder));
    }
    initialized = true;
    for (const auto& observer : observers) {
        observer->onInitialized();
    }
}

void OfflineServiceWorker::retakeStorage() {
    auto lock = StorageLock::acquire(root, false);
    if (!lock) {
        storageHolder = std::move(lock.error());
        return;
    }
    // The other process has gone: what it left is read back now, as a start would have.
    storageLock = std::move(*lock);
    storageHolder.reset();
    initialize();
}

bool OfflineServiceWorker::acceptRegionId(const std::string& id) {
    if (isValidRegionId(id)) {
        return true;
    }
    // Built by hand rather than through "%s" so that an id with a NUL byte is shown whole.
    sendLogMessage("Invalid region id '" + escapeControlCharacters(id) + "'");
    return false;
}

HttpServiceInterface* OfflineServiceWorker::acquireHttpService() {
    if (!httpService) {
        httpService = HttpServiceFactory::getInstance().value_or(nullptr);
    }
    return httpService.get();
}

}  // namespace terrane::common
