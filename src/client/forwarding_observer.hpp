#pragma once

#include <functional>
#include <memory>

#include "client/client_loop.hpp"
#include "terrane/client/pack_state.hpp"
#include "terrane/offline/offline_service_observer.hpp"

namespace terrane::common {

// An OfflineClient's service observer: every pack change and log line becomes a job on the
// client's thread, so the service's worker never waits for the client. Deletions are
// acknowledged once the client's observers have seen them, or at once when the client is gone.
//
// Threads: the callbacks run on the service's worker thread; the handlers on the client's.
class ForwardingObserver final : public OfflineServiceObserver {
  public:
    using PackHandler = std::function<void(const PackState&)>;
    using LogHandler = std::function<void(const std::string&)>;

    ForwardingObserver(std::weak_ptr<ClientLoop> loop, PackHandler onPack, LogHandler onLog)
        : loop_(std::move(loop)), onPack_(std::move(onPack)), onLog_(std::move(onLog)) {}

    void onPending(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                   const OfflineDataPack& pack) override;
    void onDownloading(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                       const OfflineDataPack& pack) override;
    void onIncomplete(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                      const OfflineDataPack& pack) override;
    void onVerifying(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                     const OfflineDataPack& pack) override;
    void onAvailable(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                     const OfflineDataPack& pack) override;
    void onExpired(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                   const OfflineDataPack& pack) override;
    void onErrored(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                   const OfflineDataPack& pack) override;
    void onDeleting(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                    const OfflineDataPack& pack, std::function<void()> acknowledge) override;
    void onDeleted(OfflineDataDomain domain, const OfflineDataRegionMetadata& region) override;
    void onLogMessage(const std::string& message) override;

  private:
    void forward(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                 const OfflineDataPack& pack, std::function<void()> then = nullptr);

    std::weak_ptr<ClientLoop> loop_;
    PackHandler onPack_;
    LogHandler onLog_;
};

}  // namespace terrane::common
