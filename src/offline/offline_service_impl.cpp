#include "offline/offline_service_impl.hpp"

namespace terrane::common {

OfflineServiceImpl::OfflineServiceImpl(const std::string& path,
                                       const OfflineServiceOptions& options)
    : worker(path, options, observers_()) {
}

std::weak_ptr<OfflineService>& OfflineServiceImpl::instance_() {
    // Leaked on purpose: a service released during static destruction must still find its slot.
    static auto* instance = std::make_unique<std::weak_ptr<OfflineService>>().release();
    return *instance;
}

Proxy<OfflineServiceWorker>& OfflineServiceImpl::instanceWorker_() {
    static auto* worker = std::make_unique<Proxy<OfflineServiceWorker>>().release();
    return *worker;
}

OfflineServiceObservers& OfflineServiceImpl::observers_() {
    static auto* observers = std::make_unique<OfflineServiceObservers>().release();
    return *observers;
}

std::mutex& OfflineServiceImpl::registryMutex() {
    static auto* mutex = std::make_unique<std::mutex>().release();
    return *mutex;
}

}  // namespace terrane::common
