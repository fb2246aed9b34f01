#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

#include "client/client_loop.hpp"
#include "client/observer_list.hpp"
#include "client/pack_operation_state.hpp"
#include "client/snapshot_observer.hpp"
#include "terrane/client/network_policy.hpp"
#include "terrane/client/offline_client.hpp"
#include "terrane/offline/offline_service.hpp"

namespace terrane::common {

// The requests of one OfflineClient and how each pack of them is followed: asked for, watched
// through the service's reports, retried after a delay, held back while the network is away,
// cancelled, settled. Every member runs on the client's thread; nothing here is locked.
//
// The service says nothing when it is asked for a pack that is already available or under way.
// So every request is followed by a snapshot (SnapshotObserver): the pack's state right after
// the request ran on the worker. Reports that reach the client between the request and its
// snapshot may predate the request, so they are left to the snapshot; from then on every report
// about the pack counts.
class PackScheduler {
  public:
    PackScheduler(OfflineService& service, std::shared_ptr<ClientLoop> loop,
                  ObserverList& observers, std::function<double()> random, NetworkStatus network);
    PackScheduler(const PackScheduler&) = delete;
    PackScheduler& operator=(const PackScheduler&) = delete;

    void download(std::shared_ptr<PackOperationState> state,
                  const OfflineDataRegionMetadata& region,
                  const std::vector<OfflineDataDomain>& domains, PackDownloadOptions options);
    void remove(std::shared_ptr<PackOperationState> state, const OfflineDataRegionMetadata& region,
                const std::vector<OfflineDataDomain>& domains);

    // A report of the service, through the client's service observer.
    void packChanged(const PackState& state);
    void logMessage(const std::string& message);
    void networkChanged(NetworkStatus network);

    // Ends every open pack with an error and lets go of the snapshots still awaited.
    void shutdown();

  private:
    struct Operation {
        std::uint64_t id = 0;
        std::weak_ptr<PackOperationState> state;
        PackDownloadOptions options;
        std::optional<std::stop_callback<std::function<void()>>> onStop;
    };

    enum class Phase {
        // Asked for; waiting for the snapshot taken after the request.
        Requested,
        // Following the service's reports.
        Running,
        // Waiting for the retry timer.
        Backoff,
        // Held back by the network policy.
        Paused,
    };

    struct Task {
        std::shared_ptr<Operation> operation;
        std::size_t index = 0;
        bool removal = false;
        OfflineDataRegionMetadata region;
        OfflineDataDomain domain = OfflineDataDomain::Maps;
        std::uint64_t total = 0;
        Phase phase = Phase::Requested;
        std::uint64_t snapshot = 0;
        OfflineDataPackStatus state = OfflineDataPackStatus::Pending;
        std::uint64_t bytes = 0;
        std::uint64_t mostBytes = 0;
        std::uint64_t resumedFrom = 0;
        std::uint32_t attempt = 0;
        std::uint32_t failuresInRow = 0;
        bool corruptRetried = false;
        // A retry fell due while the network was away.
        bool retryDue = false;
        std::optional<ClientClock::TimePoint> nextRetry;
        std::optional<OfflineDataError> lastError;
        // Timers of an earlier wait find another number here and do nothing.
        std::uint64_t timer = 0;
        // The last of onDeleting and onDeleted heard while a removal awaited its snapshot.
        std::optional<OfflineDataPackStatus> deletionHeard;
    };

    std::shared_ptr<Operation> makeOperation(std::shared_ptr<PackOperationState> state,
                                             PackDownloadOptions options);
    std::uint64_t addTask(const std::shared_ptr<Operation>& operation, std::size_t index,
                          bool removal, const OfflineDataRegionMetadata& region,
                          OfflineDataDomain domain);

    void request(std::uint64_t id, bool retry, bool fromScratch = false);
    std::uint64_t takeSnapshot();
    void snapshotArrived(std::uint64_t snapshot, const std::vector<PackState>& packs);
    void retryTimer(std::uint64_t id, std::uint64_t timer);
    void cancel(std::uint64_t operation);

    void follow(std::uint64_t id, const OfflineDataPack& pack);
    void followRemoval(std::uint64_t id, const OfflineDataPack& pack);
    void failed(std::uint64_t id, const std::optional<OfflineDataError>& error);
    void finish(std::uint64_t id, expected<OfflineDataPack, OfflineDataError> outcome,
                bool cancelled = false);
    void report(const Task& task);

    bool allowed(const Task& task) const;
    // Whether another download of the pack than `id` is under way and may go on.
    bool othersNeed(std::uint64_t id) const;
    std::vector<std::uint64_t> tasksOf(const OfflineDataRegionMetadata& region,
                                       OfflineDataDomain domain) const;

    OfflineService& service_;
    std::shared_ptr<ClientLoop> loop_;
    ObserverList& observers_;
    std::function<double()> random_;
    NetworkStatus network_;
    std::map<std::uint64_t, Task> tasks_;
    std::map<std::uint64_t, std::shared_ptr<SnapshotObserver>> snapshots_;
    std::uint64_t nextId_ = 1;
};

}  // namespace terrane::common
