#pragma once

#include <memory>
#include <string>
#include <thread>

#include "client/client_loop.hpp"
#include "client/forwarding_observer.hpp"
#include "client/observer_list.hpp"
#include "client/pack_scheduler.hpp"
#include "terrane/client/offline_client.hpp"
#include "terrane/offline/offline_service.hpp"

namespace terrane::common {

// What an OfflineClient owns, in the order it is built and the reverse order it is let go: the
// service, the client's loop and observers, the scheduler, the service observer, the thread.
class OfflineClientImpl {
  public:
    OfflineClientImpl(const std::string& path, const OfflineServiceOptions& options,
                      OfflineClientSettings settings);
    ~OfflineClientImpl();
    OfflineClientImpl(const OfflineClientImpl&) = delete;
    OfflineClientImpl& operator=(const OfflineClientImpl&) = delete;

    // Runs `job` on the client's thread with the scheduler.
    void post(std::function<void(PackScheduler&)> job);

    std::shared_ptr<OfflineService> service;
    std::shared_ptr<ClientLoop> loop;
    ObserverList observers;

  private:
    std::unique_ptr<PackScheduler> scheduler_;
    std::shared_ptr<ForwardingObserver> forwarding_;
    std::thread thread_;
};

}  // namespace terrane::common
