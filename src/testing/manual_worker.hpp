#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "offline/offline_service_worker.hpp"
#include "offline/task.hpp"
#include "offline/task_queue.hpp"
#include "offline/worker_thread.hpp"

namespace terrane::common::test {

// An OfflineServiceWorker with a real task queue that the test thread itself works off, step by
// step, instead of a worker thread. Whatever the worker posts to itself, and whatever callbacks
// of other threads post to it (HTTP answers, acknowledgements), waits in the queue until the test
// calls runPending(), so every exchange can be checked in a fixed order:
//
//     ManualWorker worker(path, options, {recorder});
//     worker->downloadPack(OfflineDataDomain::Maps, region);   // a call, as the facade posts it
//     http->nextDownload().finish(content);                    // the answer
//     http->waitUntilDelivered();                              // now queued for the worker
//     worker.runPending();                                     // and handled, idle check included
//
// Use from one test thread; the queue itself takes posts from any thread.
class ManualWorker {
  public:
    ManualWorker(const std::string& path, const OfflineServiceOptions& options,
                 OfflineServiceObservers observers)
        : queue(std::make_shared<TaskQueue>()) {
        auto* object = reinterpret_cast<OfflineServiceWorker*>(&storage);
        worker = std::construct_at(object, Proxy<OfflineServiceWorker>(object, queue), path,
                                   options, std::move(observers));
    }
    ~ManualWorker() { std::destroy_at(worker); }

    ManualWorker(const ManualWorker&) = delete;
    ManualWorker& operator=(const ManualWorker&) = delete;

    OfflineServiceWorker& operator*() const { return *worker; }
    OfflineServiceWorker* operator->() const { return worker; }

    // Runs queued tasks in queue order, including those they queue in turn, until nothing is
    // left (idle checks too). Returns how many ran.
    std::size_t runPending() {
        std::size_t total = 0;
        for (;;) {
            // The marker goes in at the lowest priority, behind everything queued now; what a
            // task queues at that priority meanwhile comes after it and waits for the next round.
            const std::size_t ran = runUntil(putMarker());
            if (ran == 0) {
                return total;
            }
            total += ran;
        }
    }

    // Runs the first queued task only; a marker keeps get() from waiting on an empty queue, and
    // one left behind is passed over by the next run. Returns whether a task ran.
    bool runOne() {
        putMarker();
        std::unique_ptr<Task> task = queue->get();
        (*task)();
        return dynamic_cast<Marker*>(task.get()) == nullptr;
    }

    // What the WorkerThread's destructor does first: from now on the worker is shutting down.
    void beginShutdown() { queue->stop(); }

  private:
    // Sets its flag when it runs; otherwise does nothing.
    class Marker final : public Task {
      public:
        explicit Marker(std::shared_ptr<bool> reached_)
            : Task(TaskPriority::Idle), reached(std::move(reached_)) {}
        void operator()() override { *reached = true; }

      private:
        std::shared_ptr<bool> reached;
    };

    std::shared_ptr<bool> putMarker() {
        auto reached = std::make_shared<bool>(false);
        queue->put(std::make_unique<Marker>(reached));
        return reached;
    }

    // Runs tasks until the marker behind `reached` has run; returns how many of them were not
    // markers.
    std::size_t runUntil(const std::shared_ptr<bool>& reached) {
        std::size_t ran = 0;
        while (!*reached) {
            std::unique_ptr<Task> task = queue->get();
            if (dynamic_cast<Marker*>(task.get()) == nullptr) {
                ++ran;
            }
            (*task)();
        }
        return ran;
    }

    std::shared_ptr<TaskQueue> queue;
    alignas(OfflineServiceWorker) std::byte storage[sizeof(OfflineServiceWorker)];
    OfflineServiceWorker* worker = nullptr;
};

}  // namespace terrane::common::test
