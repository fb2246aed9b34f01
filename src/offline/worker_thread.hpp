#pragma once

#include <cstddef>
#include <memory>
#include <system_error>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>

#include "offline/task.hpp"
#include "offline/task_queue.hpp"

namespace terrane::common {

// A handle through which the worker object, and callbacks that must come back to it, post calls
// to the worker thread. It only watches the queue, so a call posted after the worker thread has
// gone (an HTTP completion arriving during shutdown, say) is dropped.
//
// Threads: post() from any thread. Copyable; copies are independent.
template <typename T>
class Proxy {
  public:
    Proxy() = default;
    Proxy(T* object_, std::weak_ptr<TaskQueue> queue_)
        : object(object_), queue(std::move(queue_)) {}

    // Queues `(object->*fn)(args...)` at `priority`. When the queue is gone or the proxy has no
    // object, the call is dropped and the arguments are destroyed here, before post() returns,
    // without being called (a completion callback among them is never run).
    template <typename Fn, typename... Args>
    void post(TaskPriority priority, Fn fn, Args&&... args) const {
        using ArgsTuple = std::tuple<std::decay_t<Args>...>;
        // Taken first so that rvalue arguments are consumed whether or not the call goes out.
        ArgsTuple arguments(std::forward<Args>(args)...);
        std::shared_ptr<TaskQueue> target = queue.lock();
        if (!target || object == nullptr) {
            return;
        }
        target->put(std::make_unique<TaskImpl<T, Fn, ArgsTuple>>(priority, object, fn,
                                                                 std::move(arguments)));
    }

    // True once the WorkerThread has begun to stop: the tasks still running are the last ones
    // before the worker goes. False while it runs, and for a proxy that never had a queue.
    bool stopping() const {
        const std::shared_ptr<TaskQueue> target = queue.lock();
        return target && target->isStopped();
    }

  private:
    T* object = nullptr;
    std::weak_ptr<TaskQueue> queue;
};

// Owns one thread and the object of type T that lives on it. T is constructed on the thread, as
// T(Proxy<T>, constructor arguments...), runs every posted call there, and is destroyed there once
// the WorkerThread is destroyed and the queue has drained. T's state therefore needs no lock.
//
// Threads: construct, post and destroy from any thread, but destroy never from the worker
// thread itself (it would join itself). The constructor and post() never wait for the worker.
template <typename T>
class WorkerThread {
  public:
    // Copies (or moves) the arguments to the new thread. If the thread cannot be started,
    // std::system_error "thread constructor failed" (with the system's code) propagates.
    template <typename... Args>
    explicit WorkerThread(Args&&... args) : queue(std::make_shared<TaskQueue>()) {
        try {
            thread = std::thread(&WorkerThread::run<std::decay_t<Args>...>, this,
                                 std::forward<Args>(args)...);
        } catch (const std::system_error& error) {
            throw std::system_error(error.code(), "thread constructor failed");
        }
    }

    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // Runs every task already queued, destroys T on its thread and joins. noexcept: if stopping or
    // joining throws, the process terminates rather than leave a thread running on freed memory.
    ~WorkerThread() noexcept {
        if (thread.joinable()) {
            queue->stop();
            thread.join();
        }
    }

    // Queues `(object->*fn)(args...)` at `priority`. Calls posted before T is constructed wait for
    // it: the thread constructs T before taking the first task.
    template <typename Fn, typename... Args>
    void post(TaskPriority priority, Fn fn, Args&&... args) {
        queue->put(makeTask(priority, object(), fn, std::forward<Args>(args)...));
    }

    // A handle that posts to this worker without keeping it alive; see Proxy.
    Proxy<T> proxy() noexcept { return Proxy<T>(object(), queue); }

  private:
    // Only an address until the worker thread constructs T in the storage; nobody dereferences it
    // before then, because tasks run only after construction.
    T* object() noexcept { return reinterpret_cast<T*>(&storage); }

    // Anything thrown out of T's constructor, a task or T's destructor ends the process: the
    // worker's state would be half-changed, and nothing can carry on from there.
    template <typename... Args>
    void run(Args... args) {
        T* worker = std::construct_at(object(), proxy(), std::move(args)...);
        for (;;) {
            std::unique_ptr<Task> task = queue->get();
            if (!task) {
                break;
            }
            (*task)();
            // The task, and everything its arguments own, dies here, before the next get().
        }
        std::destroy_at(worker);
    }

    std::shared_ptr<TaskQueue> queue;
    alignas(T) std::byte storage[sizeof(T)];
    std::thread thread;
};

}  // namespace terrane::common
