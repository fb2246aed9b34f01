#include "terrane/client/retry_policy.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <tuple>
#include <utility>

namespace terrane::common {
namespace {

using namespace std::chrono_literals;

TEST(RetryDelay, DoublesFromOneSecondToFiveMinutesAndJitterOnlyShortensIt) {
    const RetryPolicy policy;
    // Failures in a row, the random draw and the delay.
    const std::tuple<std::uint32_t, double, std::chrono::milliseconds> rows[] = {
        {1, 0.0, 1s},    {2, 0.0, 2s},    {3, 0.0, 4s},    {8, 0.0, 128s},  {9, 0.0, 256s},
        {10, 0.0, 300s}, {60, 0.0, 300s}, {1, 0.5, 750ms}, {10, 0.5, 225s},
    };
    for (const auto& [failures, random, delay] : rows) {
        EXPECT_EQ(retryDelay(policy, failures, random), delay)
            << failures << " failures, random " << random;
    }
}

TEST(RetryDelay, OnlyTransientFailuresAreRetried) {
    using enum OfflineDataErrorCode;
    const std::pair<OfflineDataErrorCode, bool> rows[] = {
        {Connection, true},       {Server, true},      {RateLimited, true},
        {Unauthorized, false},    {NotFound, false},   {Corrupt, false},
        {InvalidResponse, false}, {Filesystem, false}, {Unknown, false},
    };
    for (const auto& [code, retried] : rows) {
        EXPECT_EQ(isRetryable(code), retried) << code;
    }
}

}  // namespace
}  // namespace terrane::common
