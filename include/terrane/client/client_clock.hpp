#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "terrane/export.hpp"

namespace terrane::common {

// The time an OfflineClient schedules its retries by. Applications take steadyClientClock();
// tests give a clock whose time moves only when they say, so that a retry schedule of minutes
// runs in no time.
//
// Threads: every member may be called from any thread, and now() never blocks. The client calls
// subscribe() when it starts and unsubscribe() before it ends; a clock shared by several clients
// serves each its own subscription.
class TERRANE_EXPORT ClientClock {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    virtual ~ClientClock();

    virtual TimePoint now() const = 0;

    // Registers `wake`, which the clock calls whenever its time jumps other than with the steady
    // clock (a test advancing it), on the thread that moved it. Returns the number that
    // unsubscribe() takes. A clock that follows the steady clock never calls `wake`.
    virtual std::uint64_t subscribe(std::function<void()> wake) = 0;

    // Forgets the subscription. When it returns, `wake` is not running and never runs again.
    virtual void unsubscribe(std::uint64_t subscription) = 0;
};

// The steady clock of the system. One shared object; any thread.
TERRANE_EXPORT std::shared_ptr<ClientClock> steadyClientClock();

}  // namespace terrane::common
