#include "offline/task_queue.hpp"

#include <utility>

namespace terrane::common {

void TaskQueue::put(std::unique_ptr<Task> task) {
    if (!task) {
        return;
    }
    bool wake = false;
    {
        std::lock_guard lock(mutex);
        incoming.push_back(std::move(task));
        if (incoming.size() == 1) {
            hasIncoming.store(true, std::memory_order_release);
        }
        wake = getterWaiting;
    }
    // Only a getter that found nothing to do sleeps; a busy one will look at `incoming` by
    // itself. Outside the lock, so the woken getter does not immediately block on the mutex.
    if (wake) {
        condition.notify_one();
    }
}

bool TaskQueue::adoptIncoming() {
    {
        std::unique_lock lock(mutex);
        if (size == 0) {
            getterWaiting = true;
            condition.wait(lock, [this] { return !incoming.empty() || stopped; });
            getterWaiting = false;
        }
        if (incoming.empty()) {
            return false;
        }
        adopted.swap(incoming);
        hasIncoming.store(false, std::memory_order_relaxed);
    }
    for (auto& task : adopted) {
        const auto priority = static_cast<std::size_t>(task->priority);
        auto& fifo = fifos[priority];
        if (!fifo) {
            fifo = std::make_unique<Fifo>();
        }
        fifo->push_back(std::move(task));
        nonEmpty[priority / wordBits] |= std::uint64_t{1} << (priority % wordBits);
    }
    size += adopted.size();
    adopted.clear();
    if (adopted.capacity() > keptBatchCapacity) {
        // A burst must not pin its memory for the rest of the queue's life.
        std::vector<std::unique_ptr<Task>>().swap(adopted);
    }
    return true;
}

std::unique_ptr<Task> TaskQueue::get() {
    std::lock_guard take(takeMutex);
    // A task put before this call has set the flag before it; one put meanwhile may or may not
    // be adopted now, as with any race between a put and a get.
    if (size == 0 || hasIncoming.load(std::memory_order_acquire)) {
        adoptIncoming();
    }
    if (size == 0) {
        return nullptr;
    }
    // A non-zero size means some bit is set, so the scan stops inside the bitmap.
    std::size_t word = 0;
    while (nonEmpty[word] == 0) {
        ++word;
    }
    const auto bit = static_cast<std::size_t>(std::countr_zero(nonEmpty[word]));
    auto& fifo = *fifos[word * wordBits + bit];
    std::unique_ptr<Task> task = std::move(fifo.front());
    fifo.pop_front();
    if (fifo.empty()) {
        nonEmpty[word] &= ~(std::uint64_t{1} << bit);
    }
    --size;
    return task;
}

void TaskQueue::stop() {
    {
        std::lock_guard lock(mutex);
        stopped = true;
    }
    condition.notify_all();
}

bool TaskQueue::isStopped() const {
    std::lock_guard lock(mutex);
    return stopped;
}

}  // namespace terrane::common
