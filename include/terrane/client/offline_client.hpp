#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "terrane/client/client_clock.hpp"
#include "terrane/client/network_policy.hpp"
#include "terrane/client/offline_client_observer.hpp"
#include "terrane/client/pack_operation.hpp"
#include "terrane/client/pack_progress.hpp"
#include "terrane/client/pack_state.hpp"
#include "terrane/client/retry_policy.hpp"
#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/offline/offline_data.hpp"
#include "terrane/reachability/reachability_interface.hpp"

namespace terrane::common {

class OfflineClientImpl;

// How one download() call goes about its packs.
struct PackDownloadOptions {
    // Called on the client's thread with every change of a pack: state, bytes, attempt, retry
    // time; the last call for an available pack reports it whole. Must not block for long.
    std::function<void(const PackProgress&)> progress;
    // Stopping it cancels the packs still under way (their partial files stay, so a later
    // download resumes them); their results say cancelled.
    std::stop_token stop;
    RetryPolicy retry;
    // Takes effect when the client was given a reachability service.
    NetworkPolicy network = NetworkPolicy::AnyNetwork;
};

// What a client is built from besides the service's path and options. Every member may stay
// empty.
struct OfflineClientSettings {
    // The clock retries are scheduled by; empty: steadyClientClock().
    std::shared_ptr<ClientClock> clock;
    // Draws the jitter of retry delays, uniformly from [0, 1); called on the client's thread.
    // Empty: a generator of the client's own.
    std::function<double()> random;
    // Tells the client when the network comes and goes, for the downloads' network policies.
    // The client adds a listener when it is built (so build it before the service is started,
    // or on the thread that starts and stops it) and reads the current status then; the
    // service must be started by its owner. Empty: the network counts as there, unmetered.
    std::shared_ptr<ReachabilityInterface> reachability;
};

// Requests with answers on top of the process's OfflineService: list the catalogue and wait for
// it, download a region's packs and wait for each to be available (retrying what a dropped
// connection or a busy server interrupted), remove packs and wait until they are gone, and see
// what the storage holds. Uses only the service's public interface; several clients can live
// side by side over the one service, each with its own observers.
//
//     OfflineClient client(storage, {.username = "alice", .accessToken = token, .baseURL = {}});
//     auto region = client.findRegion("harbour", nullopt, 30s);
//     auto download = client.download(*region, {}, {.progress = show});
//     for (const auto& pack : download.result()) { ... pack.outcome->path ... }
//
// Threads: every member may be called from any thread, but not from the client's own thread
// (progress callbacks, OfflineClientObserver) for those that wait. The client runs one thread of
// its own, for retries, progress reports and observer calls; its destructor joins it, and then
// releases the service (which, if it was the last holder, finishes the service's work and joins
// its worker): so never destroy a client on its own thread or in a service observer callback.
class TERRANE_EXPORT OfflineClient {
  public:
    // Takes the process's OfflineService (OfflineService::getInstance: a live service is shared
    // as it is, whatever `path` and `options` say). Throws std::system_error if a thread cannot
    // be started.
    OfflineClient(const std::string& path, const OfflineServiceOptions& options,
                  OfflineClientSettings settings = {});
    // Operations still open end with an error; the service's downloads go on without retries.
    ~OfflineClient();
    OfflineClient(const OfflineClient&) = delete;
    OfflineClient& operator=(const OfflineClient&) = delete;

    // Reads the catalogue afresh and blocks the calling thread until it arrives. Connection when
    // no answer came within `timeout`; Unknown with cancelledMessage when `stop` was requested
    // first.
    expected<std::vector<OfflineDataRegionMetadata>, OfflineDataError> listRegions(
        std::chrono::milliseconds timeout, std::stop_token stop = {}) const;

    // Blocks as listRegions() does, then findRegion() of region_selection.hpp: the latest
    // revision unless one is named.
    expected<OfflineDataRegionMetadata, OfflineDataError> findRegion(
        std::string_view id, optional<std::uint32_t> revision, std::chrono::milliseconds timeout,
        std::stop_token stop = {}) const;

    // Returns at once; the work runs on the client's thread. Downloads the region's packs of
    // `domains` (empty: every pack the region offers). A pack already available completes at
    // once with its path; a domain the region does not offer completes with NotFound.
    PackOperation download(const OfflineDataRegionMetadata& region,
                           std::vector<OfflineDataDomain> domains,
                           PackDownloadOptions options = {});

    // Returns at once. Deletes the region's packs of `domains` (empty: every pack the region
    // offers); each completes once Deleted, which waits for the acknowledgement of every service
    // observer (this client's own is given at once). A pack that is not stored completes as
    // Deleted.
    PackOperation remove(const OfflineDataRegionMetadata& region,
                         std::vector<OfflineDataDomain> domains);

    // What the storage holds now, partial downloads included, in the service's order (region
    // id, revision, domain). Needs no catalogue. Blocks the calling thread until the service's
    // worker has run everything queued before.
    std::vector<PackState> stored() const;

    // Observers of this client only. Adding one twice, or a null one, changes nothing. Once
    // removeObserver returns on another thread than the client's, the observer is not called
    // again.
    void addObserver(std::shared_ptr<OfflineClientObserver> observer);
    void removeObserver(const std::shared_ptr<OfflineClientObserver>& observer);

  private:
    std::unique_ptr<OfflineClientImpl> impl_;
};

}  // namespace terrane::common
