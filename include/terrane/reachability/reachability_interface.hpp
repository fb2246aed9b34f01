#pragma once

#include <functional>

#include "terrane/export.hpp"
#include "terrane/reachability/network_status.hpp"

namespace terrane::common {

// Tells whether the network, or one host, can be reached and over which kind of link, and calls
// its listeners when that may have changed. Obtained from ReachabilityFactory; the caller owns it
// through a shared pointer. A service is created stopped: no listener runs before start().
//
// Threads: addListener, start and stop are not locked against each other: call them from one
// thread, or add listeners before start(). Change notifications run on the library's network
// monitor thread. The status queries may be called from any thread and never wait for name
// resolution.
class TERRANE_EXPORT ReachabilityInterface {
  public:
    // Defined in the library so that its vtable and type information have one home there.
    virtual ~ReachabilityInterface();

    // Appends a listener, which the service owns from then on; it is not called now. Listeners
    // run in order of addition, each time with the status queried once for that change, on the
    // monitor thread; they must not block for long, since every other service waits behind them.
    // An empty listener raises std::bad_function_call when its turn comes (on the monitor
    // thread the error is logged and the next listener runs). A listener must not destroy the
    // service it belongs to.
    virtual void addListener(std::function<void(NetworkStatus)>&& listener) = 0;

    // Any thread: currentNetworkStatus() != NotReachable.
    virtual bool isReachable() = 0;

    // Any thread: the status as the system reports it now, for a host as of its latest name
    // resolution (a host that has not resolved is not reachable).
    virtual NetworkStatus currentNetworkStatus() = 0;

    // Starts watching for changes (again, after stop()), then calls every listener once, in
    // order, on the calling thread, each with a freshly queried status.
    virtual void start() = 0;

    // Stops watching. When it returns on a thread other than the monitor thread, no listener of
    // this service runs any more, not even one that was under way. Listeners are kept for the
    // next start().
    virtual void stop() = 0;
};

}  // namespace terrane::common
