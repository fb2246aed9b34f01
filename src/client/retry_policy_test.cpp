#include "terrane/client/retry_policy.hpp"

#include <gtest/gtest.h>

namespace terrane::common {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(RetryDelay, DoublesFromOneSecondToFiveMinutesAndJitterOnlyShortensIt) {
    const RetryPolicy policy;
    struct Row {
        std::uint32_t failures;
        double random;
        milliseconds delay;
    };
    const Row rows[] = {
        {1, 0.0, seconds(1)},    {2, 0.0, seconds(2)},        {3, 0.0, seconds(4)},
        {8, 0.0, seconds(128)},  {9, 0.0, seconds(256)},      {10, 0.0, seconds(300)},
        {60, 0.0, seconds(300)}, {1, 0.5, milliseconds(750)}, {10, 0.5, seconds(225)},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(retryDelay(policy, row.failures, row.random), row.delay)
            << row.failures << " failures, random " << row.random;
    }
}

TEST(RetryDelay, OnlyTransientFailuresAreRetried) {
    const std::pair<OfflineDataErrorCode, bool> rows[] = {
        {OfflineDataErrorCode::Connection, true},       {OfflineDataErrorCode::Server, true},
        {OfflineDataErrorCode::RateLimited, true},      {OfflineDataErrorCode::Unauthorized, false},
        {OfflineDataErrorCode::NotFound, false},        {OfflineDataErrorCode::Corrupt, false},
        {OfflineDataErrorCode::InvalidResponse, false}, {OfflineDataErrorCode::Filesystem, false},
        {OfflineDataErrorCode::Unknown, false},
    };
    for (const auto& [code, retried] : rows) {
        EXPECT_EQ(isRetryable(code), retried) << code;
    }
}

}  // namespace
}  // namespace terrane::common
