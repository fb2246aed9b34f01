#include "terrane/util/rfc3339.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace terrane::common::util {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::int64_t day = 86'400;

TimePoint at(std::int64_t unixSeconds, std::int64_t extraMilliseconds = 0) {
    return TimePoint{seconds{unixSeconds}} + milliseconds{extraMilliseconds};
}

// Expected instants below are calendar values (Unix seconds) worked out independently of the
// parser; the February ones then add the one day that the shared file arithmetic adds. Fractions
// and unpadded seconds are read back by the formatting test.

TEST(ParseRFC3339, ReadsTimeStampsAndRefusesMalformedText) {
    const std::int64_t march2020 = 1'583'020'800;
    const std::int64_t newYear2021 = 1'609'459'200;
    const std::vector<std::pair<const char*, optional<TimePoint>>> rows{
        {"2021-03-04T05:06:07Z", at(1'614'816'000 + 5 * 3600 + 6 * 60 + 7)},
        {"2024-12-31T23:59:59Z", at(1'735'603'200 + day - 1)},
        {"2021-02-01T00:00:00Z", at(1'612'137'600)},
        {"2100-02-01T00:00:00Z", at(4'105'123'200)},
        // February of a leap year reads one day late, so the leap day is the first of March.
        {"2020-02-01T00:00:00Z", at(1'580'515'200 + day)},
        {"2000-02-15T00:00:00Z", at(950'572'800 + day)},
        {"2020-02-29T00:00:00Z", at(march2020)},
        // Below a millisecond the fraction is cut off, not rounded.
        {"2020-03-01T00:00:00.1239Z", at(march2020, 123)},
        {"2021-01-01T10:00:00+02:00", at(newYear2021 + 8 * 3600)},
        {"2021-01-01T10:00:00-05:30", at(newYear2021 + 15 * 3600 + 1800)},
        // The time of day is not range-checked.
        {"2021-01-01T25:00:00Z", at(newYear2021 + 25 * 3600)},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(parseRFC3339(text), expected) << text;
    }
    for (const char* text :
         {static_cast<const char*>(nullptr), "yesterday", "2021-01-01T10:00:00+02",
          "2021-00-01T10:00:00Z", "2021-13-01T10:00:00Z", "2021-01-00T10:00:00Z",
          "2021-01-32T10:00:00Z", "2021-01-01T-1:00:00Z", "2021-01-01T10:00:nanZ",
          "2021-01-01T10:00:infZ", "2021-01-01T10:00:1e300Z"}) {
        EXPECT_FALSE(parseRFC3339(text)) << text;
    }
}

TEST(FormatRFC3339, WritesMillisecondsWithUnpaddedSecondsThatReadBack) {
    const std::vector<std::pair<TimePoint, std::string>> rows{
        {at(1'614'816'000 + 5 * 3600 + 6 * 60 + 5, 250), "2021-03-04T05:06:5.250Z"},
        {at(1'735'603'200 + day - 1, 999), "2024-12-31T23:59:59.999Z"},
        {at(-1, 500), "1969-12-31T23:59:59.500Z"},
        // Read back, this leap day is the first of March.
        {at(1'582'934'400 + 3600, 7), "2020-02-29T01:00:0.007Z"},
    };
    for (const auto& [time, text] : rows) {
        EXPECT_EQ(formatRFC3339(time), text);
    }
    const TimePoint minute = at(1'614'816'000 + 13 * 3600 + 37 * 60);
    for (std::int64_t ms = 0; ms < 60'000; ++ms) {
        const TimePoint time = minute + milliseconds{ms};
        ASSERT_EQ(parseRFC3339(formatRFC3339(time).c_str()), time) << formatRFC3339(time);
    }
}

}  // namespace
}  // namespace terrane::common::util
