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
//     http->nextDownload().finish(content);                    // the answer, queued for it
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
    // left (idle checks too).
    void runPending() {
        while (runRound()) {
        }
    }

    // What the WorkerThread's destructor does first: from now on the worker is shutting down.
    void beginShutdown() { queue->stop(); }

  private:
    // Runs tasks until a marker put in at the lowest priority comes back: what a task queues at
    // that priority meanwhile comes after it and waits for the next round. Returns whether any
    // task ran.
    bool runRound() {
        auto marker = std::make_unique<Marker>();
        const Task* mine = marker.get();
        queue->put(std::move(marker));
        bool ran = false;
        for (auto task = queue->get(); task.get() != mine; task = queue->get()) {
            (*task)();
            ran = true;
        }
        return ran;
    }

    struct Marker final : Task {
        Marker() : Task(TaskPriority::Idle) {}
        void operator()() override {}
    };

    std::shared_ptr<TaskQueue> queue;
    alignas(OfflineServiceWorker) std::byte storage[sizeof(OfflineServiceWorker)];
    OfflineServiceWorker* worker = nullptr;
};

}  // namespace terrane::common::test
