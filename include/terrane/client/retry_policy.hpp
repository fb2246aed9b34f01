#pragma once

#include <chrono>
#include <cstdint>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/offline/offline_data.hpp"

namespace terrane::common {

// When an OfflineClient asks the service for a pack again after a download stopped short.
//
// A pack that ends Incomplete, or Errored with Connection, Server or RateLimited, is asked for
// again after a delay that starts at `initialDelay` and doubles with every failure in a row, up
// to `maxDelay`; bytes arriving start the count again. Unauthorized, NotFound and the other
// errors are final, except Corrupt, which is retried once from scratch (the pack is deleted and
// downloaded in full). A plain record: copy it freely.
struct RetryPolicy {
    std::chrono::milliseconds initialDelay{1'000};
    std::chrono::milliseconds maxDelay{300'000};
    // Each delay is shortened by up to this share of it, drawn at random, so that clients that
    // lost the network together do not come back together. 0 gives the bare schedule.
    double jitter = 0.5;
    // How many times a pack is asked for in all, the first time included; empty: without limit,
    // for as long as the operation's handle lives. 1 means no retry.
    optional<std::uint32_t> maxAttempts;
};

// The delay before the next request after `failuresInRow` (1 or more) failures without progress,
// with `random` in [0, 1) deciding the jitter. Any thread.
TERRANE_EXPORT std::chrono::milliseconds retryDelay(const RetryPolicy& policy,
                                                    std::uint32_t failuresInRow, double random);

// Whether a pack that failed with this error is asked for again after a delay. Any thread.
TERRANE_EXPORT bool isRetryable(OfflineDataErrorCode code);

}  // namespace terrane::common
