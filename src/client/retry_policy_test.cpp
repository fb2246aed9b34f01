#include "terrane/client/retry_policy.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <utility>

namespace terrane::common {
namespace {

using namespace std::chrono_literals;

TEST(RetryDelay, DoublesFromOneSecondToFiveMinutesAndJitterOnlyShortensIt) {
    const RetryPolicy policy;
    struct Row {
        std::uint32_t failures;
        double random;
        std::chrono::milliseconds delay;
    };
    const Row rows[] = {
        {1, 0.0, 1s},    {2, 0.0, 2s},    {3, 0.0, 4s},    {8, 0.0, 128s},  {9, 0.0, 256s},
        {10, 0.0, 300s}, {60, 0.0, 300s}, {1, 0.5, 750ms}, {10, 0.5, 225s},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(retryDelay(policy, row.failures, row.random), row.delay)
            << row.failures << " failures, random " << row.random;
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
