#include "terrane/offline/offline_service_observer.hpp"

#include <utility>

namespace terrane::common {

// Defined out of line so that the vtable and type information have one home in the shared
// library.

void OfflineServiceObserver::onPending(OfflineDataDomain, const OfflineDataRegionMetadata&,
                                       const OfflineDataPack&) {
}
void OfflineServiceObserver::onDownloading(OfflineDataDomain, const OfflineDataRegionMetadata&,
                                           const OfflineDataPack&) {
}
void OfflineServiceObserver::onIncomplete(OfflineDataDomain, const OfflineDataRegionMetadata&,
                                          const OfflineDataPack&) {
}
void OfflineServiceObserver::onVerifying(OfflineDataDomain, const OfflineDataRegionMetadata&,
                                         const OfflineDataPack&) {
}
void OfflineServiceObserver::onAvailable(OfflineDataDomain, const OfflineDataRegionMetadata&,
                                         const OfflineDataPack&) {
}
void OfflineServiceObserver::onExpired(OfflineDataDomain, const OfflineDataRegionMetadata&,
                                       const OfflineDataPack&) {
}
void OfflineServiceObserver::onErrored(OfflineDataDomain, const OfflineDataRegionMetadata&,
                                       const OfflineDataPack&) {
}
void OfflineServiceObserver::onDeleting(OfflineDataDomain, const OfflineDataRegionMetadata&,
                                        const OfflineDataPack&, std::function<void()> acknowledge) {
    if (acknowledge) {
        std::move(acknowledge)();
    }
}
void OfflineServiceObserver::onDeleted(OfflineDataDomain, const OfflineDataRegionMetadata&) {
}
void OfflineServiceObserver::onInitialized() {
}
void OfflineServiceObserver::onIdle() {
}
void OfflineServiceObserver::onLogMessage(const std::string&) {
}

OfflineServiceObserver::~OfflineServiceObserver() = default;

}  // namespace terrane::common
