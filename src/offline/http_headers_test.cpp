#include "offline/http_headers.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <string>
#include <tuple>
#include <utility>

namespace terrane::common {
namespace {

using namespace std::chrono_literals;

const util::TimePoint now{1'700'000'000'000ms};

HttpResponseData answer(HttpHeaders headers, std::int64_t code = 200, std::string body = {}) {
    return HttpResponseData{std::move(headers), code, HttpBody(body.begin(), body.end())};
}

OfflineDataPackHeaders lease(util::TimePoint expires, std::int64_t maxAge, std::string etag = {}) {
    return {expires, maxAge, std::move(etag), 0, false, false};
}

TEST(ExtractHeaders, TheLeaseComesFromMaxAgeAndTheEntityTagAsItStands) {
    const auto never = util::TimePoint::max();
    const auto largest = std::numeric_limits<long long>::max();
    const std::pair<HttpHeaders, OfflineDataPackHeaders> rows[] = {
        {{{"content-type", "application/octet-stream"}}, {}},
        {{{"Cache-Control", "public, max-age=3600"}, {"ETag", "W/\"v2\""}},
         lease(now + 1h, 3600, "W/\"v2\"")},
        {{{"cache-control", "max-age=0"}}, lease(now, 0)},
        {{{"cache-control", "MAX-AGE=3600"}}, {}},  // the marker is case-sensitive
        {{{"cache-control", "max-age=-5"}}, {}},
        {{{"cache-control", "max-age=soon"}}, {}},
        {{{"cache-control", "max-age=99999999999999999999999"}}, lease(never, largest)},
        {{{"cache-control", "max-age=9223372036854775"}}, lease(never, 9223372036854775)},
    };
    for (const auto& [headers, expected] : rows) {
        EXPECT_EQ(extractHeaders(answer(headers), now), expected) << headers.begin()->second;
    }
}

TEST(ExtractHTTPError, EachStatusStandsForItsError) {
    using enum OfflineDataErrorCode;
    const std::tuple<std::int64_t, std::string, OfflineDataError> rows[] = {
        {401, R"({"message": "Invalid Token"})", {Unauthorized, "Invalid Token"}},
        {404, "", {NotFound, ""}},
        {429, "slow down", {RateLimited, "slow down"}},
        {500, R"({"message": "down"})", {Server, "HTTP Error 500: down"}},
        {599, "", {Server, "HTTP Error 599"}},
        {499, "", {Unknown, "HTTP Error 499"}},
        {600, "", {Unknown, "HTTP Error 600"}},
        {402, "pay", {Unknown, "HTTP Error 402: pay"}},
    };
    for (const auto& [code, body, expected] : rows) {
        EXPECT_EQ(extractHTTPError(answer({}, code, body)), expected) << code;
    }
}

TEST(WeakEntityTags, MatchOnceTheWeakMarkIsDroppedButNeverWhenEmpty) {
    EXPECT_TRUE(weakEntityTagsMatch("\"a\"", "W/\"a\""));
    EXPECT_FALSE(weakEntityTagsMatch("\"a\"", "\"b\""));
    EXPECT_FALSE(weakEntityTagsMatch("W/", ""));
    EXPECT_FALSE(weakEntityTagsMatch("", "W/"));
}

}  // namespace
}  // namespace terrane::common
