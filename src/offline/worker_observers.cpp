// Observer notification: the state callbacks and their exception guard, registration with the
// replay of the stored state, log messages and the idle check.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

#include "offline/offline_service_worker.hpp"

namespace terrane::common {

namespace {

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

constexpr OfflineDataDomain domains[] = {OfflineDataDomain::Maps, OfflineDataDomain::Navigation};

}  // namespace

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
    for (const auto& [key, region] : regions) {
        for (const auto domain : domains) {
            const auto& holder = region.getPackHolder(domain);
            if (holder.visible()) {
                notifyPackObserverGuarded(*observer, domain, region.metadata, holder.pack());
            }
        }
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
    for (auto& [key, region] : regions) {
        for (const auto domain : domains) {
            // Only packs that still await this observer: loading the context of any other could
            // log about its metadata for no reason.
            if (!region.getPackHolder(domain).deletionAcknowledgements.contains(observer)) {
                continue;
            }
            if (auto context = loadContext(domain, region)) {
                removeObserverInternal(*context, observer);
            }
        }
    }
}

void OfflineServiceWorker::removeObserverInternal(
    Context& context, const std::shared_ptr<OfflineServiceObserver>& observer) {
    auto& awaited = context.holder.deletionAcknowledgements;
    const auto found = awaited.find(observer);
    if (found == awaited.end()) {
        return;
    }
    awaited.erase(found);
    if (!awaited.empty()) {
        return;
    }
    completeAcknowledgedDeletion(context);
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
        notifyPackObserverGuarded(*observer, domain, region, pack);
    }
}

void OfflineServiceWorker::notifyPackObserverGuarded(OfflineServiceObserver& observer,
                                                     OfflineDataDomain domain,
                                                     const OfflineDataRegionMetadata& region,
                                                     const OfflineDataPack& pack) {
    try {
        notifyPackObserver(observer, domain, region, pack);
    } catch (const std::exception& error) {
        sendLogMessage(std::string("Uncaught exception in observer: ") + error.what());
    } catch (...) {
        sendLogMessage("Uncaught exception in observer");
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

void OfflineServiceWorker::sendLogMessage(const std::string& message) noexcept {
    for (const auto& observer : observers) {
        try {
            observer->onLogMessage(message);
        } catch (...) {
            // A diagnostic that one observer fails to take must neither keep it from the others
            // nor become a failure of the service (a throw out of a task ends the process).
        }
    }
}

}  // namespace terrane::common
