#include "offline/task_queue.hpp"

#include <utility>

namespace terrane::common {

void TaskQueue::put(std::unique_ptr<Task> task) {
    if (!task) {
        return;
    }
    {
        std::lock_guard lock(mutex);
        const auto priority = static_cast<std::size_t>(task->priority);
        auto& fifo = fifos[priority];
        if (!fifo) {
            fifo = std::make_unique<Fifo>();
        }
        fifo->push_back(std::move(task));
        nonEmpty[priority / wordBits] |= std::uint64_t{1} << (priority % wordBits);
        ++size;
    }
    // Outside the lock, so the woken getter does not immediately block on the mutex again.
    condition.notify_one();
}

std::unique_ptr<Task> TaskQueue::get() {
    std::unique_lock lock(mutex);
    condition.wait(lock, [this] { return size > 0 || stopped; });
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
