#include "offline/http_headers.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <string>

namespace terrane::common {
namespace {

using namespace std::chrono_literals;

const util::TimePoint now{std::chrono::milliseconds(1'700'000'000'000)};

HttpResponseData answer(HttpHeaders headers, std::int64_t code = 200, std::string body = {}) {
    return HttpResponseData{std::move(headers), code, HttpBody(body.begin(), body.end())};
}

OfflineDataPackHeaders leaseOf(const std::string& cacheControl) {
    return extractHeaders(answer({{"cache-control", cacheControl}}), now);
}

TEST(ExtractHeaders, WithoutCachingHeadersThereIsNoLeaseEndAndNoEntityTag) {
    const auto headers =
        extractHeaders(answer({{"content-type", "application/octet-stream"}}), now);
    EXPECT_EQ(headers, OfflineDataPackHeaders{});
}

TEST(ExtractHeaders, MaxAgeSetsTheLeaseFromNow) {
    const auto headers = leaseOf("public, max-age=3600");
    EXPECT_EQ(headers.max_age, 3600);
    EXPECT_EQ(headers.expires, now + 1h);
    EXPECT_EQ(leaseOf("max-age=0").expires, now);
}

TEST(ExtractHeaders, TheMarkerIsCaseSensitiveButHeaderNamesAreNot) {
    EXPECT_EQ(leaseOf("MAX-AGE=3600"), OfflineDataPackHeaders{});
    const auto headers =
        extractHeaders(answer({{"Cache-Control", "max-age=60"}, {"ETag", "\"v2\""}}), now);
    EXPECT_EQ(headers.max_age, 60);
    EXPECT_EQ(headers.etag, "\"v2\"");
}

TEST(ExtractHeaders, TheNumberIsReadLikeScanfWithAnyBase) {
    EXPECT_EQ(leaseOf("max-age=0x10").max_age, 16);
    EXPECT_EQ(leaseOf("max-age=010").max_age, 8);
    EXPECT_EQ(leaseOf("max-age= 42, private").max_age, 42);
    EXPECT_EQ(leaseOf("max-age=+7").max_age, 7);
}

TEST(ExtractHeaders, NegativeOrUnreadableNumbersChangeNothing) {
    EXPECT_EQ(leaseOf("max-age=-5"), OfflineDataPackHeaders{});
    EXPECT_EQ(leaseOf("max-age=soon"), OfflineDataPackHeaders{});
    EXPECT_EQ(leaseOf("max-age="), OfflineDataPackHeaders{});
}

TEST(ExtractHeaders, ALeaseBeyondTheClocksRangeNeverEnds) {
    const auto headers = leaseOf("max-age=99999999999999999999999");
    EXPECT_EQ(headers.max_age, std::numeric_limits<long long>::max());
    EXPECT_EQ(headers.expires, util::TimePoint::max());
    EXPECT_EQ(leaseOf("max-age=9223372036854775").expires, util::TimePoint::max());
}

TEST(ExtractHeaders, TheEntityTagIsTakenAsItStands) {
    EXPECT_EQ(extractHeaders(answer({{"etag", "W/\"abc\""}}), now).etag, "W/\"abc\"");
}

OfflineDataError errorFor(std::int64_t code, const std::string& body) {
    return extractHTTPError(answer({}, code, body));
}

TEST(ExtractHTTPError, AuthorisationMissingAndRateLimitCarryTheServersWords) {
    EXPECT_EQ(errorFor(401, R"({"message": "Invalid Token"})"),
              (OfflineDataError{OfflineDataErrorCode::Unauthorized, "Invalid Token"}));
    EXPECT_EQ(errorFor(403, "forbidden"),
              (OfflineDataError{OfflineDataErrorCode::Unauthorized, "forbidden"}));
    EXPECT_EQ(errorFor(404, "gone"), (OfflineDataError{OfflineDataErrorCode::NotFound, "gone"}));
    EXPECT_EQ(errorFor(429, "slow down"),
              (OfflineDataError{OfflineDataErrorCode::RateLimited, "slow down"}));
    EXPECT_EQ(errorFor(404, ""), (OfflineDataError{OfflineDataErrorCode::NotFound, ""}));
}

TEST(ExtractHTTPError, ServerErrorsAndEverythingElseAreFormatted) {
    EXPECT_EQ(errorFor(500, R"({"message": "down"})"),
              (OfflineDataError{OfflineDataErrorCode::Server, "HTTP Error 500: down"}));
    EXPECT_EQ(errorFor(599, ""),
              (OfflineDataError{OfflineDataErrorCode::Server, "HTTP Error 599"}));
    EXPECT_EQ(errorFor(600, ""),
              (OfflineDataError{OfflineDataErrorCode::Unknown, "HTTP Error 600"}));
    EXPECT_EQ(errorFor(402, "pay"),
              (OfflineDataError{OfflineDataErrorCode::Unknown, "HTTP Error 402: pay"}));
    EXPECT_EQ(errorFor(304, ""),
              (OfflineDataError{OfflineDataErrorCode::Unknown, "HTTP Error 304"}));
}

}  // namespace
}  // namespace terrane::common
