#include "client/forwarding_observer.hpp"

#include <utility>

namespace terrane::common {

void ForwardingObserver::forward(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                 const OfflineDataPack& pack, std::function<void()> then) {
    const auto loop = loop_.lock();
    const bool posted =
        loop && loop->post([handler = onPack_, state = PackState{region, domain, pack}, then] {
            handler(state);
            if (then) {
                then();
            }
        });
    if (!posted && then) {
        then();
    }
}

void ForwardingObserver::onPending(OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region,
                                   const OfflineDataPack& pack) {
    forward(domain, region, pack);
}

void ForwardingObserver::onDownloading(OfflineDataDomain domain,
                                       const OfflineDataRegionMetadata& region,
                                       const OfflineDataPack& pack) {
    forward(domain, region, pack);
}

void ForwardingObserver::onIncomplete(OfflineDataDomain domain,
                                      const OfflineDataRegionMetadata& region,
                                      const OfflineDataPack& pack) {
    forward(domain, region, pack);
}

void ForwardingObserver::onVerifying(OfflineDataDomain domain,
                                     const OfflineDataRegionMetadata& region,
                                     const OfflineDataPack& pack) {
    forward(domain, region, pack);
}

void ForwardingObserver::onAvailable(OfflineDataDomain domain,
                                     const OfflineDataRegionMetadata& region,
                                     const OfflineDataPack& pack) {
    forward(domain, region, pack);
}

void ForwardingObserver::onExpired(OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region,
                                   const OfflineDataPack& pack) {
    forward(domain, region, pack);
}

void ForwardingObserver::onErrored(OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region,
                                   const OfflineDataPack& pack) {
    forward(domain, region, pack);
}

void ForwardingObserver::onDeleting(OfflineDataDomain domain,
                                    const OfflineDataRegionMetadata& region,
                                    const OfflineDataPack& pack,
                                    std::function<void()> acknowledge) {
    OfflineDataPack deleting = pack;
    deleting.status = OfflineDataPackStatus::Deleting;
    forward(domain, region, deleting, std::move(acknowledge));
}

void ForwardingObserver::onDeleted(OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region) {
    forward(domain, region, OfflineDataPack{});
}

void ForwardingObserver::onLogMessage(const std::string& message) {
    if (const auto loop = loop_.lock()) {
        loop->post([handler = onLog_, message] { handler(message); });
    }
}

}  // namespace terrane::common
