#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "terrane/expected.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::common {

// The process-wide watcher of the kernel's network state: while anybody watches, one thread
// reads a netlink socket subscribed to links, addresses and IPv4/IPv6 routes, lets a burst of
// messages settle (about 100 ms), then calls every watcher's hook and posts one
// "TRNNetworkReachabilityChangedNotification" to the process-wide notification center, on its
// own thread. It also keeps NetworkManager's metered hint, asked afresh at start and after each
// change, so that status queries need not ask the bus.
//
// The thread starts with the first watcher, in the network namespace of the thread that adds
// it, and stops when the last watcher goes. The monitor owns the thread and joins it: at once
// when the last watcher is removed from another thread, else (removed from the monitor thread
// itself) before the next start.
class NetlinkMonitor {
  public:
    using Hook = std::function<void()>;

    NetlinkMonitor() = default;
    NetlinkMonitor(const NetlinkMonitor&) = delete;
    NetlinkMonitor& operator=(const NetlinkMonitor&) = delete;

    // Created on first use and never destroyed, so that services that outlive static
    // destruction can still stop.
    static NetlinkMonitor& processWide();

    // Any thread. Adds a watcher whose hook (may be empty) runs on the monitor thread after each
    // settled burst of kernel changes, before the notification; it must only hand the news on.
    // Returns the watcher's id, or nullopt when the kernel cannot be watched.
    optional<std::uint64_t> addWatcher(Hook hook);

    // Any thread. Once it returns the watcher's hook does not run any more.
    void removeWatcher(std::uint64_t id);

    // Any thread: the monitor thread posts a notification soon, without calling the hooks.
    // Ignored while nobody watches.
    void requestNotification();

    // Any thread: whether NetworkManager reports the connection metered; the kept answer while
    // the monitor runs, else asked now.
    bool meteredHint();

  private:
    // What one run of the thread works with; shared by the thread and the monitor.
    struct Session {
        base::io::FileDescriptor socket;
        base::io::FileDescriptor wake;
        bool stopping = false;               // guarded by mutex_
        bool notificationRequested = false;  // guarded by mutex_
    };

    void run(const std::shared_ptr<Session>& session);
    static void wake(const Session& session);

    std::mutex mutex_;
    std::map<std::uint64_t, Hook> watchers_;  // guarded by mutex_
    std::uint64_t nextId_ = 1;                // guarded by mutex_
    std::shared_ptr<Session> session_;        // guarded by mutex_; set while anybody watches
    std::thread thread_;                      // guarded by mutex_
    std::atomic<bool> metered_{false};
};

}  // namespace terrane::common
