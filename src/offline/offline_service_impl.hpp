#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "offline/offline_service_worker.hpp"
#include "offline/task.hpp"
#include "offline/worker_thread.hpp"
#include "terrane/offline/offline_data.hpp"
#include "terrane/offline/offline_service.hpp"

namespace terrane::common {

// What an OfflineService owns: its worker thread, and with it the worker. Destroying it runs the
// tasks still queued, destroys the worker on its thread and joins the thread.
//
// Also home of the process-wide registry that OfflineService's static operations use. The
// registry lives in function-local statics that are created on first use and never destroyed, so
// that observers and the instance slot stay usable during static destruction.
class OfflineServiceImpl {
  public:
    // Starts the worker with a copy of observers_(). The caller must hold registryMutex().
    OfflineServiceImpl(const std::string& path, const OfflineServiceOptions& options);

    OfflineServiceImpl(const OfflineServiceImpl&) = delete;
    OfflineServiceImpl& operator=(const OfflineServiceImpl&) = delete;

    // Queues a worker member call at TaskPriority::Normal. Any thread.
    template <typename Fn, typename... Args>
    void post(Fn fn, Args&&... args) {
        worker.post(TaskPriority::Normal, fn, std::forward<Args>(args)...);
    }

    // A handle on this service's worker that does not keep the service alive.
    Proxy<OfflineServiceWorker> workerProxy() { return worker.proxy(); }

    // The current service, if one lives. Guarded by registryMutex().
    static std::weak_ptr<OfflineService>& instance_();
    // The worker of the service in instance_(), for posting observer changes without taking a
    // reference to the service. Guarded by registryMutex().
    static Proxy<OfflineServiceWorker>& instanceWorker_();
    // Every registered observer. Guarded by registryMutex().
    static OfflineServiceObservers& observers_();
    // Guards instance_() and observers_(), and orders the registrations posted to the worker
    // with the changes of observers_(). Never held while anything waits for a worker thread.
    static std::mutex& registryMutex();

  private:
    WorkerThread<OfflineServiceWorker> worker;
};

}  // namespace terrane::common
