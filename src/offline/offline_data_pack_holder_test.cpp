#include "offline/offline_data_pack_holder.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <string>

#include "offline/http_headers.hpp"
#include "testing/recording_observer.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using H = OfflineDataPackHolder;
using S = OfflineDataPackStatus;

const util::TimePoint now{1'700'000'000'000ms};

// Every setter changes its fields and only those, and advances the generation; only Deleting and
// Deleted keep the pack from observers.
TEST(PackHolder, EveryTransition) {
    const OfflineDataError corrupt{OfflineDataErrorCode::Corrupt, "changed"};
    const std::string old = "/old/maps/1.tmp";
    // Each row starts from a pack errored at generation 2 that awaits one acknowledgement.
    const struct {
        std::function<void(H&)> set;
        OfflineDataPack expected;
        bool acknowledgementsKept;
    } rows[] = {
        {[](H& h) { h.setPending("/p", 3); }, {S::Pending, nullopt, "/p", 3}, false},
        {[](H& h) { h.setDownloading(9); }, {S::Downloading, nullopt, old, 9}, false},
        {[](H& h) { h.setIncomplete(); }, {S::Incomplete, nullopt, old, 7}, true},
        {[](H& h) { h.setVerifying(); }, {S::Verifying, nullopt, old, 7}, true},
        {[](H& h) { h.setAvailable("/p"); }, {S::Available, nullopt, "/p", 7}, false},
        {[](H& h) { h.setAvailable(); }, {S::Available, nullopt, old, 7}, false},
        {[&](H& h) { h.setExpired(corrupt); }, {S::Expired, corrupt, old, 7}, true},
        {[](H& h) { h.setExpired(nullopt); }, {S::Expired, nullopt, old, 7}, true},
        {[](H& h) { h.setExpired(std::string("/p")); }, {S::Expired, nullopt, "/p", 7}, true},
        {[&](H& h) { h.setError(corrupt); }, {S::Errored, corrupt, old, 7}, true},
        {[](H& h) { h.setDeleting(); }, {S::Deleting, nullopt, old, 7}, true},
        {[](H& h) { h.setDeleted(); }, {S::Deleted, nullopt, "", 0}, true},
        {[](H& h) { h.restore(S::Verifying, "/p", 11); }, {S::Verifying, nullopt, "/p", 11}, false},
    };
    auto observer = std::make_shared<test::RecordingObserver>();
    for (std::size_t row = 0; row < std::size(rows); ++row) {
        SCOPED_TRACE(row);
        H holder;
        holder.setPending(old, 7);
        holder.setError({OfflineDataErrorCode::NotFound, "gone"});
        holder.deletionAcknowledgements.insert(observer);
        holder.downloadId = 42;
        rows[row].set(holder);
        EXPECT_EQ(holder.pack(), rows[row].expected);
        EXPECT_EQ(holder.generation(), 3u);
        EXPECT_EQ(holder.deletionAcknowledgements.size(), rows[row].acknowledgementsKept ? 1 : 0);
        EXPECT_EQ(holder.downloadId, 42u);  // bookkeeping is never a setter's business
        EXPECT_EQ(holder.visible(), holder.status() < S::Deleting);
    }
    // Progress keeps the generation, so that the downloads' key stays valid.
    H holder;
    holder.setPending("/p", 0);
    holder.updateProgress(250);
    EXPECT_EQ(holder.pack(), (OfflineDataPack{S::Downloading, nullopt, "/p", 250}));
    EXPECT_EQ(holder.generation(), 1u);
    // A status out of range is a broken invariant, not a hidden pack.
    holder.restore(static_cast<S>(9), "", 0);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH((void)holder.visible(), "");
    holder.headers.expires = now;
    EXPECT_FALSE(holder.isExpired(now));
    holder.headers.expires = now - 1ms;
    EXPECT_TRUE(holder.isExpired(now));
    EXPECT_TRUE(holder.isExpired());
}

TEST(PackHolder, ALeaseIsDueForRenewalOnceLessThanHalfItsMaxAgeRemains) {
    const auto largest = std::numeric_limits<std::int64_t>::max();
    const struct {
        util::TimePoint expires;
        std::int64_t maxAge;
        bool due;
        S status = S::Available;
        std::string etag = "\"v1\"";
    } rows[] = {
        {now + 43200s, 86400, false},
        {now + 43200s - 1ms, 86400, true},
        {now + 3s, 7, false},  // half of 7 is 3 whole seconds
        {now + 2999ms, 7, true},
        {now, -1, false},  // without max-age only a lease that has run out
        {now - 1ms, -1, true},
        {now + 1000h, largest, true},  // no overflow of the clock
        {now + 1000h, largest / 500, true},
        {util::TimePoint::max(), largest, false},
        {now + 1s, 86400, false, S::Available, ""},
        {now + 1s, 86400, false, S::Expired},
        {now + 1s, 86400, false, S::Verifying},
    };
    for (const auto& row : rows) {
        H holder;
        holder.headers = {row.expires, row.maxAge, row.etag, 0, false, false};
        holder.restore(row.status, "/p", 10);
        EXPECT_EQ(holder.needsLeaseRenewal(now), row.due)
            << (row.expires - now).count() << " " << row.maxAge;
    }
}

HttpResponseData answer(HttpHeaders headers, std::int64_t code = 200, std::string body = {}) {
    return HttpResponseData{std::move(headers), code, HttpBody(body.begin(), body.end())};
}

OfflineDataPackHeaders lease(util::TimePoint expires, std::int64_t maxAge, std::string etag = {}) {
    return {expires, maxAge, std::move(etag), 0, false, false};
}

TEST(ExtractHeaders, TheLeaseComesFromMaxAgeAndTheEntityTagAsItStands) {
    const auto never = util::TimePoint::max();
    const auto largest = std::numeric_limits<long long>::max();
    const struct {
        HttpHeaders headers;
        OfflineDataPackHeaders expected;
    } rows[] = {
        {{{"content-type", "application/octet-stream"}}, {}},
        {{{"Cache-Control", "public, max-age=3600"}, {"ETag", "W/\"v2\""}},
         lease(now + 1h, 3600, "W/\"v2\"")},
        {{{"cache-control", "max-age=0"}}, lease(now, 0)},
        {{{"cache-control", "MAX-AGE=3600"}}, {}},  // the marker is case-sensitive
        {{{"cache-control", "max-age=0x10"}}, lease(now + 16s, 16)},
        {{{"cache-control", "max-age=010"}}, lease(now + 8s, 8)},
        {{{"cache-control", "max-age= +42, private"}}, lease(now + 42s, 42)},
        {{{"cache-control", "max-age=-5"}}, {}},
        {{{"cache-control", "max-age=soon"}}, {}},
        {{{"cache-control", "max-age=99999999999999999999999"}}, lease(never, largest)},
        {{{"cache-control", "max-age=9223372036854775"}}, lease(never, 9223372036854775)},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(extractHeaders(answer(row.headers), now), row.expected)
            << row.headers.begin()->second;
    }
}

TEST(ExtractHTTPError, EachStatusStandsForItsError) {
    const struct {
        std::int64_t code;
        std::string body;
        OfflineDataError expected;
    } rows[] = {
        {401,
         R"({"message": "Invalid Token"})",
         {OfflineDataErrorCode::Unauthorized, "Invalid Token"}},
        {403, "forbidden", {OfflineDataErrorCode::Unauthorized, "forbidden"}},
        {404, "", {OfflineDataErrorCode::NotFound, ""}},
        {429, "slow down", {OfflineDataErrorCode::RateLimited, "slow down"}},
        {500, R"({"message": "down"})", {OfflineDataErrorCode::Server, "HTTP Error 500: down"}},
        {599, "", {OfflineDataErrorCode::Server, "HTTP Error 599"}},
        {499, "", {OfflineDataErrorCode::Unknown, "HTTP Error 499"}},
        {600, "", {OfflineDataErrorCode::Unknown, "HTTP Error 600"}},
        {402, "pay", {OfflineDataErrorCode::Unknown, "HTTP Error 402: pay"}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(extractHTTPError(answer({}, row.code, row.body)), row.expected) << row.code;
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
