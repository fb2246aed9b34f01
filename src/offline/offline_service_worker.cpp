#include "offline/offline_service_worker.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

namespace terrane::common {

namespace {

std::string effectiveBaseURL(const optional<std::string>& baseURL) {
    if (!baseURL || baseURL->empty()) {
        return std::string(defaultCatalogueEndpoint);
    }
    return *baseURL;
}

std::string formatMessage(const char* format, va_list arguments) {
    va_list measuring;
    va_copy(measuring, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measuring);
    va_end(measuring);
    if (length <= 0) {
        return {};
    }
    std::string message(static_cast<std::size_t>(length), '\0');
    // vsnprintf writes the terminating null too; std::string owns room for it past size().
    std::vsnprintf(message.data(), message.size() + 1, format, arguments);
    return message;
}

}  // namespace

OfflineServiceWorker::OfflineServiceWorker(Proxy<OfflineServiceWorker> proxy_,
                                           const std::string& path,
                                           const OfflineServiceOptions& options,
                                           OfflineServiceObservers observers_)
    : proxy(std::move(proxy_)),
      baseURL(effectiveBaseURL(options.baseURL)),
      username(options.username),
      accessToken(options.accessToken),
      root(storageRoot(path)),
      observers(std::move(observers_)) {
    // Queued before anything else can be, and at Idle priority, so that it runs only after the
    // start-up follow-ups and whatever the facade posts meanwhile.
    proxy.post(TaskPriority::Idle, &OfflineServiceWorker::sendIdleNotification);
    initialize();
    initialized = true;
    for (const auto& observer : observers) {
        observer->onInitialized();
    }
}

std::filesystem::path OfflineServiceWorker::storageRoot(const std::string& path) const {
    return std::filesystem::path(path);
}

void OfflineServiceWorker::initialize() {
    // A service starts with no stored packs: there is nothing on disk to recover.
}

void OfflineServiceWorker::listAvailableRegions(AvailableRegionsCallback) {
}

void OfflineServiceWorker::downloadPack(OfflineDataDomain, const OfflineDataRegionMetadata&) {
}

void OfflineServiceWorker::cancelPackDownload(OfflineDataDomain, const OfflineDataRegionMetadata&) {
}

void OfflineServiceWorker::deletePack(OfflineDataDomain, const OfflineDataRegionMetadata&) {
}

void OfflineServiceWorker::addObserver(std::shared_ptr<OfflineServiceObserver> observer) {
    if (!observer) {
        return;
    }
    if (!observers.insert(observer).second) {
        return;
    }
    if (!initialized) {
        // The constructor's announcement will include it.
        return;
    }
    observer->onInitialized();
    if (idleReported) {
        observer->onIdle();
    }
}

void OfflineServiceWorker::removeObserver(std::shared_ptr<OfflineServiceObserver> observer) {
    if (!observer) {
        return;
    }
    observers.erase(observer);
}

void OfflineServiceWorker::sendIdleNotification() {
    idleCheckPosted = false;
    if (activeDownloads != 0 || pendingDeletions != 0 || pendingCancellations != 0 ||
        idleReported) {
        return;
    }
    idleReported = true;
    for (const auto& observer : observers) {
        observer->onIdle();
    }
}

void OfflineServiceWorker::markBusy() {
    idleReported = false;
    if (!idleCheckPosted) {
        idleCheckPosted = true;
        proxy.post(TaskPriority::Idle, &OfflineServiceWorker::sendIdleNotification);
    }
}

void OfflineServiceWorker::notifyPack(OfflineDataDomain domain,
                                      const OfflineDataRegionMetadata& region,
                                      const OfflineDataPack& pack) {
    for (const auto& observer : observers) {
        try {
            notifyPackObserver(*observer, domain, region, pack);
        } catch (const std::exception& error) {
            sendLogMessageIgnoringFailures(std::string("Uncaught exception in observer: ") +
                                           error.what());
        } catch (...) {
            sendLogMessageIgnoringFailures("Uncaught exception in observer");
        }
    }
}

void OfflineServiceWorker::notifyPackObserver(OfflineServiceObserver& observer,
                                              OfflineDataDomain domain,
                                              const OfflineDataRegionMetadata& region,
                                              const OfflineDataPack& pack) {
    switch (pack.status) {
        case OfflineDataPackStatus::Pending:
            return observer.onPending(domain, region, pack);
        case OfflineDataPackStatus::Downloading:
            return observer.onDownloading(domain, region, pack);
        case OfflineDataPackStatus::Incomplete:
            return observer.onIncomplete(domain, region, pack);
        case OfflineDataPackStatus::Verifying:
            return observer.onVerifying(domain, region, pack);
        case OfflineDataPackStatus::Available:
            return observer.onAvailable(domain, region, pack);
        case OfflineDataPackStatus::Expired:
            return observer.onExpired(domain, region, pack);
        case OfflineDataPackStatus::Errored:
            return observer.onErrored(domain, region, pack);
        case OfflineDataPackStatus::Deleting:
            // Announcing Deleting without its acknowledgement would leave the deletion waiting
            // forever; only the deletion itself may announce it.
            std::abort();
        case OfflineDataPackStatus::Deleted:
            return observer.onDeleted(domain, region);
    }
    std::abort();
}

void OfflineServiceWorker::logMessage(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string message = formatMessage(format, arguments);
    va_end(arguments);
    sendLogMessage(message);
}

void OfflineServiceWorker::sendLogMessage(const std::string& message) {
    for (const auto& observer : observers) {
        observer->onLogMessage(message);
    }
}

void OfflineServiceWorker::sendLogMessageIgnoringFailures(const std::string& message) noexcept {
    for (const auto& observer : observers) {
        try {
            observer->onLogMessage(message);
        } catch (...) {
            // Reporting the failure of one observer must not become a failure of the service.
        }
    }
}

}  // namespace terrane::common
