#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "offline/task.hpp"

namespace terrane::common {

// The queue between the threads that post work and the one worker thread that runs it. Tasks come
// out by ascending priority, in posting order within a priority, so a task posted later with a
// smaller priority overtakes those already waiting.
//
// Threads: put() and stop() from any thread; get() from the worker thread (several getters would
// work, but the worker relies on being the only one). Held by shared pointer: the WorkerThread
// owns it, Proxies only watch it.
class TaskQueue {
  public:
    TaskQueue() = default;
    TaskQueue(const TaskQueue&) = delete;
    TaskQueue& operator=(const TaskQueue&) = delete;

    // Appends the task and wakes the waiting get(), if any. A null task is ignored and wakes
    // nobody.
    // Tasks put after stop() are still returned by get() while it keeps being called.
    void put(std::unique_ptr<Task> task);

    // Removes and returns the first task in priority order, waiting while the queue is empty. Null
    // means "stop": the queue is empty and stop() has been called, so every task put before the
    // stop has been handed out.
    std::unique_ptr<Task> get();

    // Lets get() return null once the queue has drained; wakes every waiter.
    void stop();

    // Whether stop() has been called. The tasks still run after it are the tail of a shutdown,
    // and the worker uses this to leave late answers alone. Any thread.
    bool isStopped() const;

  private:
    static constexpr std::size_t priorityCount = 256;
    static constexpr std::size_t wordBits = 64;
    // The largest batch whose storage is kept for the next one.
    static constexpr std::size_t keptBatchCapacity = 65536;

    // Moves every task put so far into the ordered FIFOs; returns false when there was none.
    // Holds takeMutex.
    bool adoptIncoming();

    // Producers only append to `incoming` under `mutex`, a few instructions, so that they hardly
    // ever meet the worker there. The worker takes the whole batch at once, the next time it
    // looks, and sorts it into the FIFOs outside that lock: a busy worker takes the producers'
    // mutex once per batch instead of once per task. Since every get() first adopts whatever has
    // been put before it, the order is still that of a stable sort by priority of all tasks put
    // before the get.
    mutable std::mutex mutex;
    std::condition_variable condition;
    std::vector<std::unique_ptr<Task>> incoming;  // guarded by mutex
    bool getterWaiting = false;                   // guarded by mutex
    bool stopped = false;                         // guarded by mutex
    // True while `incoming` is non-empty, so that get() can tell without the lock that it has
    // nothing to adopt. Written once per batch, and on a cache line of its own: the getter reads
    // it for every task, and that must not pull the producers' mutex away from them each time.
    alignas(64) std::atomic<bool> hasIncoming{false};

    // Serialises getters; guards everything below.
    alignas(64) std::mutex takeMutex;
    // Keeping one FIFO per priority value gives the order of a stable sort by priority without
    // sorting: the first non-empty FIFO, found in the bitmap, holds the next task. A FIFO is
    // created when its priority is first used and kept, so that a busy priority does not
    // reallocate.
    using Fifo = std::deque<std::unique_ptr<Task>>;
    std::array<std::unique_ptr<Fifo>, priorityCount> fifos;
    // Bit p set: fifos[p] is non-empty.
    std::array<std::uint64_t, priorityCount / wordBits> nonEmpty{};
    std::size_t size = 0;
    // The batch last taken from `incoming`, kept for its capacity up to keptBatchCapacity.
    std::vector<std::unique_ptr<Task>> adopted;
};

}  // namespace terrane::common
