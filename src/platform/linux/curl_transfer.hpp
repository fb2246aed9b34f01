#pragma once

#include <curl/curl.h>

#include <chrono>
#include <string>

#include "terrane/expected.hpp"

namespace terrane::common {

// One exchange driven by the engine: a plain request or a download. The engine owns every
// transfer, adds its easy handle to the multi handle and tells it what happened; the transfer
// keeps its own state and queues the callbacks it owes on the engine's DeliveryQueue, never
// calling one itself.
//
// Engine thread only. complete(), cancel(), failed() and abandon() are called once the engine has
// taken the easy handle out of the multi handle.
class CurlTransfer {
  public:
    using Clock = std::chrono::steady_clock;

    enum class Next {
        Done,     // the outcome is queued; the engine drops the transfer
        Restart,  // handle() is a new easy handle to run
    };

    virtual ~CurlTransfer() = default;

    // The easy handle to run.
    virtual CURL* handle() const = 0;

    // The easy handle finished with this result.
    virtual Next complete(CURLcode result) = 0;

    // cancelRequest reached the transfer. Returns the answer for the canceller.
    virtual bool cancel() = 0;

    // The engine could not run the handle; message says why. Queues the failure.
    virtual void failed(const std::string& message) = 0;

    // The engine shuts down: nothing more is delivered.
    virtual void abandon() = 0;

    // Time-driven work after every round of the engine (progress reports, inactivity limits).
    // Returns true when the transfer has ended itself; the engine then drops it. Called while the
    // handle is still in the multi handle.
    virtual bool tick(Clock::time_point) { return false; }

    // When tick() next has something to do; nothing when only network events matter.
    virtual optional<Clock::time_point> nextDeadline() const { return nullopt; }
};

}  // namespace terrane::common
