#include "client/client_loop.hpp"

#include <utility>

namespace terrane::common {

ClientLoop::ClientLoop(std::shared_ptr<ClientClock> clock) : clock_(std::move(clock)) {
    subscription_ = clock_->subscribe([this] { wake(); });
}

ClientLoop::~ClientLoop() {
    clock_->unsubscribe(subscription_);
}

bool ClientLoop::post(Job job) {
    {
        std::lock_guard lock(mutex_);
        if (closed_) {
            return false;
        }
        jobs_.push_back(std::move(job));
    }
    changed_.notify_one();
    return true;
}

void ClientLoop::postAt(TimePoint due, Job job) {
    {
        std::lock_guard lock(mutex_);
        if (closed_) {
            return;
        }
        timers_.emplace(due, std::move(job));
    }
    changed_.notify_one();
}

void ClientLoop::close() {
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
    }
    changed_.notify_one();
}

void ClientLoop::wake() {
    // Taking the mutex orders the clock's jump before the loop's next look at the time.
    { std::lock_guard lock(mutex_); }
    changed_.notify_one();
}

void ClientLoop::run() {
    std::unique_lock lock(mutex_);
    while (true) {
        Job job;
        if (!jobs_.empty()) {
            job = std::move(jobs_.front());
            jobs_.pop_front();
        } else if (closed_) {
            break;
        } else if (!timers_.empty() && timers_.begin()->first <= clock_->now()) {
            job = std::move(timers_.begin()->second);
            timers_.erase(timers_.begin());
        } else if (!timers_.empty()) {
            // The clock's time may run apart from the steady clock's (a test's clock); it wakes
            // us when it jumps, so waiting for the distance in steady time is right for both.
            const auto left = timers_.begin()->first - clock_->now();
            changed_.wait_for(lock, left);
            continue;
        } else {
            changed_.wait(lock);
            continue;
        }
        lock.unlock();
        job();
        job = nullptr;
        lock.lock();
    }
    timers_.clear();
}

}  // namespace terrane::common
