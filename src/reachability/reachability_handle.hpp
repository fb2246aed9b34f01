#pragma once

#include <memory>
#include <string>

#include "reachability/reachability_flags.hpp"
#include "terrane/expected.hpp"

namespace terrane::common {

// The platform's view of the path to the network or to one host: it reads the reachability
// flags and, while its notifier runs, posts every possible change to the process-wide
// ReachabilityNotificationCenter from the platform's monitor thread. Owned by one
// ReachabilityService.
class ReachabilityHandle {
  public:
    virtual ~ReachabilityHandle() = default;

    // Any thread. The flags as of now, or nullopt when they cannot be read. Never waits for name
    // resolution: a host is judged by its latest resolved addresses.
    virtual optional<ReachabilityFlags> flags() = 0;

    // The owner's thread. Starts watching (again); false when the platform cannot watch. A host
    // is resolved anew, off the calling thread.
    virtual bool startNotifier() = 0;

    // The owner's thread. Stops watching; harmless when not watching.
    virtual void stopNotifier() = 0;
};

// This platform's handle for `hostname` (absent: the network in general), or null when the
// platform has none; exactly one reachability_handle_*.cpp defines it in a given build. Any
// thread; never blocks on name resolution.
std::unique_ptr<ReachabilityHandle> createReachabilityHandle(const optional<std::string>& hostname);

}  // namespace terrane::common
