#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

namespace terrane::tool {

// Turns Ctrl-C (SIGINT) and SIGTERM into ordinary calls on a thread of its own, so that no work
// ever happens inside a signal handler: the signals are blocked in every thread and read from a
// signalfd by the watcher thread.
//
// Construct it on the main thread before any other thread starts (threads inherit the blocked
// mask; one started earlier could still take the signal the default way). Destroy it on the same
// thread; the destructor stops and joins the watcher.
class InterruptWatcher {
  public:
    InterruptWatcher();
    ~InterruptWatcher();
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

    // Any thread. The listener is called on the watcher thread once per signal and must only hand
    // the news on (push to a queue, notify a condition variable). With no listener set, a signal
    // ends the process at once with status 130, which is what a user expects from Ctrl-C during
    // work that has nothing to cancel.
    void setListener(std::function<void()> listener);

    // Any thread: signals received so far.
    int count() const { return count_.load(); }

  private:
    void run();

    int signalDescriptor_ = -1;
    int stopDescriptor_ = -1;
    std::atomic<int> count_{0};
    std::mutex mutex_;
    std::function<void()> listener_;
    std::thread thread_;
};

// Sets a listener for the lifetime of the scope and clears it afterwards.
class InterruptListener {
  public:
    InterruptListener(InterruptWatcher* watcher, std::function<void()> listener)
        : watcher_(watcher) {
        if (watcher_ != nullptr) {
            watcher_->setListener(std::move(listener));
        }
    }
    ~InterruptListener() {
        if (watcher_ != nullptr) {
            watcher_->setListener({});
        }
    }
    InterruptListener(const InterruptListener&) = delete;
    InterruptListener& operator=(const InterruptListener&) = delete;

  private:
    InterruptWatcher* watcher_;
};

}  // namespace terrane::tool
