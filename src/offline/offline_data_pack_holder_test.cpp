#include "offline/offline_data_pack_holder.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "testing/recording_observer.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using Status = OfflineDataPackStatus;

const util::TimePoint now{1'700'000'000'000ms};

TEST(PackHolder, EverySetterChangesItsFieldsAndOnlyThoseAndAdvancesTheGeneration) {
    const OfflineDataError corrupt{OfflineDataErrorCode::Corrupt, "changed"};
    const std::string old = "/old/maps/1.tmp";
    const struct {
        const char* name;
        std::function<void(OfflineDataPackHolder&)> set;
        OfflineDataPack expected;
        bool acknowledgementsKept;
    } rows[] = {
        {"setPending",
         [](auto& h) { h.setPending("/p", 3); },
         {Status::Pending, nullopt, "/p", 3},
         false},
        {"setDownloading",
         [](auto& h) { h.setDownloading(9); },
         {Status::Downloading, nullopt, old, 9},
         false},
        {"setIncomplete",
         [](auto& h) { h.setIncomplete(); },
         {Status::Incomplete, nullopt, old, 7},
         true},
        {"setVerifying",
         [](auto& h) { h.setVerifying(); },
         {Status::Verifying, nullopt, old, 7},
         true},
        {"setAvailable(path)",
         [](auto& h) { h.setAvailable("/p"); },
         {Status::Available, nullopt, "/p", 7},
         false},
        {"setAvailable()",
         [](auto& h) { h.setAvailable(); },
         {Status::Available, nullopt, old, 7},
         false},
        {"setExpired(error)",
         [&](auto& h) { h.setExpired(corrupt); },
         {Status::Expired, corrupt, old, 7},
         true},
        {"setExpired(none)",
         [](auto& h) { h.setExpired(nullopt); },
         {Status::Expired, nullopt, old, 7},
         true},
        {"setExpired(path)",
         [](auto& h) { h.setExpired(std::string("/p")); },
         {Status::Expired, nullopt, "/p", 7},
         true},
        {"setError",
         [&](auto& h) { h.setError(corrupt); },
         {Status::Errored, corrupt, old, 7},
         true},
        {"setDeleting",
         [](auto& h) { h.setDeleting(); },
         {Status::Deleting, nullopt, old, 7},
         true},
        {"setDeleted", [](auto& h) { h.setDeleted(); }, {Status::Deleted, nullopt, "", 0}, true},
        {"restore",
         [](auto& h) { h.restore(Status::Verifying, "/p", 11); },
         {Status::Verifying, nullopt, "/p", 11},
         false},
    };
    auto observer = std::make_shared<test::RecordingObserver>();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        OfflineDataPackHolder holder;
        holder.setPending(old, 7);
        holder.setError({OfflineDataErrorCode::NotFound, "gone"});
        holder.deletionAcknowledgements.insert(observer);
        holder.downloadId = 42;
        row.set(holder);
        EXPECT_EQ(holder.pack(), row.expected);
        EXPECT_EQ(holder.generation(), 3u);
        EXPECT_EQ(holder.deletionAcknowledgements.size(), row.acknowledgementsKept ? 1u : 0u);
        EXPECT_EQ(holder.downloadId, 42u);  // bookkeeping is never a setter's business
    }
}

TEST(PackHolder, AProgressUpdateKeepsTheGenerationSoTheDownloadsKeyStaysValid) {
    OfflineDataPackHolder holder;
    holder.setPending("/p", 0);
    holder.updateProgress(250);
    EXPECT_EQ(holder.pack(), (OfflineDataPack{Status::Downloading, nullopt, "/p", 250}));
    EXPECT_EQ(holder.generation(), 1u);
}

TEST(PackHolder, OnlyPendingThroughErroredAreVisible) {
    for (std::uint32_t status = 0; status <= 8; ++status) {
        OfflineDataPackHolder holder;
        holder.restore(static_cast<Status>(status), "", 0);
        EXPECT_EQ(holder.visible(), status <= 6) << status;
    }
    OfflineDataPackHolder holder;
    holder.restore(static_cast<Status>(9), "", 0);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH((void)holder.visible(), "");
}

TEST(PackHolder, IsExpiredOnceTheStoredExpiryHasPassed) {
    OfflineDataPackHolder holder;
    EXPECT_FALSE(holder.isExpired(now));
    EXPECT_FALSE(holder.isExpired());
    holder.headers.expires = now;
    EXPECT_FALSE(holder.isExpired(now));
    holder.headers.expires = now - 1ms;
    EXPECT_TRUE(holder.isExpired(now));
    EXPECT_TRUE(holder.isExpired());
}

TEST(PackHolder, ALeaseIsDueForRenewalOnceLessThanHalfItsMaxAgeRemains) {
    const auto largest = std::numeric_limits<std::int64_t>::max();
    const struct {
        std::chrono::milliseconds remaining;
        std::int64_t maxAge;
        bool due;
        Status status = Status::Available;
        std::string etag = "\"v1\"";
    } rows[] = {
        {43200s, 86400, false},
        {43200s - 1ms, 86400, true},
        {3s, 7, false},  // half of 7 is 3 whole seconds
        {2999ms, 7, true},
        {0ms, -1, false},  // without max-age only a lease that has run out
        {-1ms, -1, true},
        {1000h, largest, true},  // no overflow of the clock
        {1000h, largest / 500, true},
        {1s, 86400, false, Status::Available, ""},
        {1s, 86400, false, Status::Expired},
        {1s, 86400, false, Status::Verifying},
    };
    for (const auto& row : rows) {
        OfflineDataPackHolder holder;
        holder.headers = {now + row.remaining, row.maxAge, row.etag, 0, false, false};
        holder.restore(row.status, "/p", 10);
        EXPECT_EQ(holder.needsLeaseRenewal(now), row.due)
            << row.remaining.count() << " " << row.maxAge;
    }
    OfflineDataPackHolder never;
    never.headers = {util::TimePoint::max(), largest, "\"v1\"", 0, false, false};
    never.restore(Status::Available, "/p", 10);
    EXPECT_FALSE(never.needsLeaseRenewal(now));
}

}  // namespace
}  // namespace terrane::common
