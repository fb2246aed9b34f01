#include "service_events.hpp"

#include "text_format.hpp"

namespace terrane::tool {

using common::OfflineDataDomain;
using common::OfflineDataPack;
using common::OfflineDataRegionMetadata;

JsonWriter& writeKeyMembers(JsonWriter& json, const PackKey& key) {
    return json.key("region")
        .value(key.region)
        .key("revision")
        .value(key.revision)
        .key("domain")
        .value(common::toString(key.domain));
}

std::string describe(const PackKey& key) {
    return common::toString(key.domain) + " pack of " + printable(key.region) + "/" +
           std::to_string(key.revision);
}

void EventQueue::push(ServiceEvent event) {
    {
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(event));
    }
    ready_.notify_one();
}

common::optional<ServiceEvent> EventQueue::popFor(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    if (!ready_.wait_for(lock, timeout, [this] { return !events_.empty(); })) {
        return common::nullopt;
    }
    ServiceEvent event = std::move(events_.front());
    events_.pop_front();
    return event;
}

void QueueingObserver::pushPack(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                const OfflineDataPack& pack) {
    ServiceEvent event;
    event.kind = ServiceEvent::Kind::Pack;
    event.domain = domain;
    event.region = region;
    event.pack = pack;
    queue_->push(std::move(event));
}

void QueueingObserver::onPending(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                 const OfflineDataPack& pack) {
    pushPack(domain, region, pack);
}

void QueueingObserver::onDownloading(OfflineDataDomain domain,
                                     const OfflineDataRegionMetadata& region,
                                     const OfflineDataPack& pack) {
    pushPack(domain, region, pack);
}

void QueueingObserver::onIncomplete(OfflineDataDomain domain,
                                    const OfflineDataRegionMetadata& region,
                                    const OfflineDataPack& pack) {
    pushPack(domain, region, pack);
}

void QueueingObserver::onVerifying(OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region,
                                   const OfflineDataPack& pack) {
    pushPack(domain, region, pack);
}

void QueueingObserver::onAvailable(OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region,
                                   const OfflineDataPack& pack) {
    pushPack(domain, region, pack);
}

void QueueingObserver::onExpired(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                 const OfflineDataPack& pack) {
    pushPack(domain, region, pack);
}

void QueueingObserver::onErrored(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                 const OfflineDataPack& pack) {
    pushPack(domain, region, pack);
}

void QueueingObserver::onDeleting(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                  const OfflineDataPack& pack, std::function<void()> acknowledge) {
    OfflineDataPack deleting = pack;
    deleting.status = common::OfflineDataPackStatus::Deleting;
    pushPack(domain, region, deleting);
    acknowledge();
}

void QueueingObserver::onDeleted(OfflineDataDomain domain,
                                 const OfflineDataRegionMetadata& region) {
    OfflineDataPack deleted;
    deleted.status = common::OfflineDataPackStatus::Deleted;
    pushPack(domain, region, deleted);
}

void QueueingObserver::onInitialized() {
    queue_->push(ServiceEvent::of(ServiceEvent::Kind::Initialized));
}

void QueueingObserver::onIdle() {
    queue_->push(ServiceEvent::of(ServiceEvent::Kind::Idle));
}

void QueueingObserver::onLogMessage(const std::string& message) {
    ServiceEvent event = ServiceEvent::of(ServiceEvent::Kind::Log);
    event.message = message;
    queue_->push(std::move(event));
}

}  // namespace terrane::tool
