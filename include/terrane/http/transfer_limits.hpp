#pragma once

#include <chrono>
#include <cstdint>

#include "terrane/export.hpp"

namespace terrane::common {

// Limits the platform HTTP service on Linux puts on every exchange, plain requests and downloads
// alike, whatever the request's own timeout says, so that a server that never accepts, never
// answers or stops sending half-way can never hold an exchange for good. An exchange that hits a
// limit ends as timed out (RequestTimedOut for a request; NetworkError "Request timed out." for a
// download, which keeps its partial file and resume data for a later resume).
struct TransferLimits {
    // The longest a connection may take to be established. 0 (or less): libcurl's own limit
    // (300 s).
    std::chrono::seconds connectTimeout{30};
    // Fewer than lowSpeedBytesPerSecond arriving or leaving per second for lowSpeedTime ends the
    // exchange; the wait for the response head counts. The rate is averaged over the last few
    // seconds, so a stall right after a burst is noticed up to about 5 s later than lowSpeedTime.
    // 0 (or less) in either field: no such limit.
    std::uint32_t lowSpeedBytesPerSecond = 1;
    std::chrono::seconds lowSpeedTime{60};
    // The most body a plain request takes in (it is held in memory); more ends the exchange with
    // OtherError "Response body too large.". Downloads go to disk and have maxBytes instead.
    // 0: no cap.
    std::uint64_t maxResponseBytes = 64 * 1024 * 1024;

    friend bool operator==(const TransferLimits&, const TransferLimits&) = default;
};

// The process-wide limits. Exchanges started after setTransferLimits returns use the new ones;
// those already running keep theirs. Both may be called from any thread at any time (they
// serialise on a mutex of their own).
TERRANE_EXPORT void setTransferLimits(const TransferLimits& limits);
TERRANE_EXPORT TransferLimits getTransferLimits();

}  // namespace terrane::common
