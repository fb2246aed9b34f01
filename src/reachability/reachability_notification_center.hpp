#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace terrane::common {

// Receives "TRNNetworkReachabilityChangedNotification".
class ReachabilityObserver {
  public:
    virtual ~ReachabilityObserver() = default;
    // Called on the posting thread; exceptions are logged and go no further.
    virtual void reachabilityChanged() = 0;
};

// The process-wide fan-out of reachability changes. Whichever handle posts, every observer hears
// of it: each then asks its own handle for a fresh status. Observers are borrowed; an observer
// must be removed before it is destroyed.
class ReachabilityNotificationCenter {
  public:
    static constexpr const char* notificationName = "TRNNetworkReachabilityChangedNotification";

    ReachabilityNotificationCenter() = default;
    ReachabilityNotificationCenter(const ReachabilityNotificationCenter&) = delete;
    ReachabilityNotificationCenter& operator=(const ReachabilityNotificationCenter&) = delete;

    // Created on first use and never destroyed, so that a service that outlives static
    // destruction can still remove itself.
    static ReachabilityNotificationCenter& processWide();

    // Any thread. Adding an observer twice keeps one registration.
    void addObserver(ReachabilityObserver* observer);

    // Any thread. Once it returns, the observer is not called again; a call to it under way on
    // another thread is waited for (one under way on this thread, the caller's own, is not).
    void removeObserver(ReachabilityObserver* observer);

    // Any thread, normally the platform's monitor thread: calls every observer registered when
    // the post began and still registered when its turn comes, in order of registration, on
    // this thread.
    void post();

  private:
    bool isRegistered(const ReachabilityObserver* observer) const;

    std::mutex mutex_;
    std::condition_variable callFinished_;
    std::vector<ReachabilityObserver*> observers_;
    std::vector<std::pair<ReachabilityObserver*, std::thread::id>> callsUnderWay_;
};

}  // namespace terrane::common
