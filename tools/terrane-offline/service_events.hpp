#pragma once

#include <chrono>
#include <compare>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <terrane/offline/offline_data.hpp>
#include <terrane/offline/offline_service_observer.hpp>
#include <vector>

#include "json_writer.hpp"

namespace terrane::tool {

// Identifies one pack: a domain of one revision of one region.
struct PackKey {
    std::string region;
    std::uint32_t revision = 0;
    common::OfflineDataDomain domain = common::OfflineDataDomain::Maps;

    friend auto operator<=>(const PackKey&, const PackKey&) = default;
};

// "maps pack of harbour/2".
std::string describe(const PackKey& key);

// The key's members ("region", "revision", "domain") into the object `json` is writing.
JsonWriter& writeKeyMembers(JsonWriter& json, const PackKey& key);

using Catalogue =
    common::expected<std::vector<common::OfflineDataRegionMetadata>, common::OfflineDataError>;

// One thing the offline service (or the user) told us, as a value that can cross threads.
struct ServiceEvent {
    enum class Kind {
        // A pack changed state: `domain`, `region` and `pack` are set (onDeleting gives Deleting,
        // onDeleted gives Deleted).
        Pack,
        Initialized,
        Idle,
        // `message` holds the service's diagnostic line.
        Log,
        // `catalogue` holds the answer to listAvailableRegions.
        Catalogue,
        // Ctrl-C or SIGTERM.
        Interrupted,
    };

    Kind kind = Kind::Log;
    common::OfflineDataDomain domain = common::OfflineDataDomain::Maps;
    common::OfflineDataRegionMetadata region;
    common::OfflineDataPack pack;
    std::string message;
    std::shared_ptr<const Catalogue> catalogue;

    PackKey key() const { return PackKey{region.id, region.revision, domain}; }

    static ServiceEvent of(Kind kind) {
        ServiceEvent event;
        event.kind = kind;
        return event;
    }
};

// Carries events from the service's worker thread (and the signal watcher) to the main thread.
// push() from any thread; pop from one consumer thread.
class EventQueue {
  public:
    void push(ServiceEvent event);
    // The oldest event, or nothing once `timeout` has passed without one.
    common::optional<ServiceEvent> popFor(std::chrono::milliseconds timeout);

  private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<ServiceEvent> events_;
};

// The tool's observer: every callback becomes an event on the queue, so that the worker thread
// never waits for the terminal. It acknowledges deletions at once: the tool keeps no pack file
// open, so it has nothing to let go of.
class QueueingObserver final : public common::OfflineServiceObserver {
  public:
    explicit QueueingObserver(std::shared_ptr<EventQueue> queue) : queue_(std::move(queue)) {}

    void onPending(common::OfflineDataDomain domain,
                   const common::OfflineDataRegionMetadata& region,
                   const common::OfflineDataPack& pack) override;
    void onDownloading(common::OfflineDataDomain domain,
                       const common::OfflineDataRegionMetadata& region,
                       const common::OfflineDataPack& pack) override;
    void onIncomplete(common::OfflineDataDomain domain,
                      const common::OfflineDataRegionMetadata& region,
                      const common::OfflineDataPack& pack) override;
    void onVerifying(common::OfflineDataDomain domain,
                     const common::OfflineDataRegionMetadata& region,
                     const common::OfflineDataPack& pack) override;
    void onAvailable(common::OfflineDataDomain domain,
                     const common::OfflineDataRegionMetadata& region,
                     const common::OfflineDataPack& pack) override;
    void onExpired(common::OfflineDataDomain domain,
                   const common::OfflineDataRegionMetadata& region,
                   const common::OfflineDataPack& pack) override;
    void onErrored(common::OfflineDataDomain domain,
                   const common::OfflineDataRegionMetadata& region,
                   const common::OfflineDataPack& pack) override;
    void onDeleting(common::OfflineDataDomain domain,
                    const common::OfflineDataRegionMetadata& region,
                    const common::OfflineDataPack& pack,
                    std::function<void()> acknowledge) override;
    void onDeleted(common::OfflineDataDomain domain,
                   const common::OfflineDataRegionMetadata& region) override;
    void onInitialized() override;
    void onIdle() override;
    void onLogMessage(const std::string& message) override;

  private:
    void pushPack(common::OfflineDataDomain domain, const common::OfflineDataRegionMetadata& region,
                  const common::OfflineDataPack& pack);

    std::shared_ptr<EventQueue> queue_;
};

}  // namespace terrane::tool
