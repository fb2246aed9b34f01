#include "offline/offline_data_pack_holder.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "offline/offline_data_region_internal.hpp"
#include "testing/recording_observer.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using Status = OfflineDataPackStatus;

const OfflineDataError notFound{OfflineDataErrorCode::NotFound, "gone"};

// A holder that has been through a few states and carries something in every field, so that a
// setter's "kept" and "replaced" fields can be told apart.
OfflineDataPackHolder busyHolder(const std::shared_ptr<OfflineServiceObserver>& observer) {
    OfflineDataPackHolder holder;
    holder.setPending("/old/maps/1.tmp", 7);
    holder.setError(notFound);
    holder.deletionAcknowledgements.insert(observer);
    return holder;
}

TEST(PackHolder, StartsDeletedWithNothingOnDiskAndNoLease) {
    OfflineDataPackHolder holder;
    EXPECT_EQ(holder.pack(), (OfflineDataPack{Status::Deleted, nullopt, "", 0}));
    EXPECT_EQ(holder.generation(), 0u);
    EXPECT_TRUE(holder.deletionAcknowledgements.empty());
    EXPECT_EQ(holder.downloadId, 0u);
    EXPECT_EQ(holder.headers, OfflineDataPackHeaders{});
    EXPECT_EQ(holder.headers.expires, util::TimePoint::max());
    EXPECT_EQ(holder.headers.max_age, -1);
    EXPECT_FALSE(holder.visible());
    EXPECT_FALSE(holder.isExpired());
}

struct SetterCase {
    const char* name;
    std::function<void(OfflineDataPackHolder&)> set;
    OfflineDataPack expected;
    bool acknowledgementsKept;
};

TEST(PackHolder, EverySetterChangesItsFieldsAndOnlyThoseAndAdvancesTheGeneration) {
    auto observer = std::make_shared<test::RecordingObserver>();
    const std::vector<SetterCase> cases = {
        {"setPending",
         [](auto& h) { h.setPending("/p/maps/1.tmp", 3); },
         {Status::Pending, nullopt, "/p/maps/1.tmp", 3},
         false},
        {"setDownloading",
         [](auto& h) { h.setDownloading(9); },
         {Status::Downloading, nullopt, "/old/maps/1.tmp", 9},
         false},
        {"setIncomplete",
         [](auto& h) { h.setIncomplete(); },
         {Status::Incomplete, nullopt, "/old/maps/1.tmp", 7},
         true},
        {"setVerifying",
         [](auto& h) { h.setVerifying(); },
         {Status::Verifying, nullopt, "/old/maps/1.tmp", 7},
         true},
        {"setAvailable(path)",
         [](auto& h) { h.setAvailable("/p/maps/1"); },
         {Status::Available, nullopt, "/p/maps/1", 7},
         false},
        {"setAvailable()",
         [](auto& h) { h.setAvailable(); },
         {Status::Available, nullopt, "/old/maps/1.tmp", 7},
         false},
        {"setExpired(error)",
         [](auto& h) {
             h.setExpired(OfflineDataError{OfflineDataErrorCode::Corrupt, "changed"});
         },
         {Status::Expired, OfflineDataError{OfflineDataErrorCode::Corrupt, "changed"},
          "/old/maps/1.tmp", 7},
         true},
        {"setExpired(no error)",
         [](auto& h) { h.setExpired(nullopt); },
         {Status::Expired, nullopt, "/old/maps/1.tmp", 7},
         true},
        {"setExpired(path)",
         [](auto& h) { h.setExpired(std::string("/p/maps/1")); },
         {Status::Expired, nullopt, "/p/maps/1", 7},
         true},
        {"setError",
         [](auto& h) {
             h.setError({OfflineDataErrorCode::Filesystem, "disk full"});
         },
         {Status::Errored, OfflineDataError{OfflineDataErrorCode::Filesystem, "disk full"},
          "/old/maps/1.tmp", 7},
         true},
        {"setDeleting",
         [](auto& h) { h.setDeleting(); },
         {Status::Deleting, nullopt, "/old/maps/1.tmp", 7},
         true},
        {"setDeleted", [](auto& h) { h.setDeleted(); }, {Status::Deleted, nullopt, "", 0}, true},
        {"restore",
         [](auto& h) { h.restore(Status::Verifying, "/p/maps/1.tmp", 11); },
         {Status::Verifying, nullopt, "/p/maps/1.tmp", 11},
         false},
    };
    for (const auto& setter : cases) {
        SCOPED_TRACE(setter.name);
        auto holder = busyHolder(observer);
        holder.downloadId = 42;
        holder.headers.etag = "\"e\"";
        const auto before = holder.generation();

        setter.set(holder);

        EXPECT_EQ(holder.pack(), setter.expected);
        EXPECT_EQ(holder.generation(), before + 1);
        EXPECT_EQ(holder.deletionAcknowledgements.size(), setter.acknowledgementsKept ? 1u : 0u);
        // Bookkeeping is the operations' business, never a setter's.
        EXPECT_EQ(holder.downloadId, 42u);
        EXPECT_EQ(holder.headers.etag, "\"e\"");
    }
}

TEST(PackHolder, AProgressUpdateKeepsTheGenerationSoTheDownloadsKeyStaysValid) {
    OfflineDataPackHolder holder;
    holder.setPending("/p/maps/1.tmp", 0);
    const auto generation = holder.generation();
    holder.updateProgress(100);
    holder.updateProgress(250);
    EXPECT_EQ(holder.pack(), (OfflineDataPack{Status::Downloading, nullopt, "/p/maps/1.tmp", 250}));
    EXPECT_EQ(holder.generation(), generation);
}

TEST(PackHolder, OnlyPendingThroughErroredAreVisible) {
    const std::vector<std::pair<Status, bool>> statuses = {
        {Status::Pending, true},   {Status::Downloading, true}, {Status::Incomplete, true},
        {Status::Verifying, true}, {Status::Available, true},   {Status::Expired, true},
        {Status::Errored, true},   {Status::Deleting, false},   {Status::Deleted, false},
    };
    for (const auto& [status, visible] : statuses) {
        OfflineDataPackHolder holder;
        holder.restore(status, "", 0);
        EXPECT_EQ(holder.visible(), visible) << static_cast<int>(status);
    }
}

TEST(PackHolderDeathTest, AStatusOutsideTheEnumerationAbortsWhenAskedForVisibility) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    OfflineDataPackHolder holder;
    holder.restore(static_cast<Status>(9), "", 0);
    EXPECT_DEATH((void)holder.visible(), "");
}

TEST(PackHolder, IsExpiredOnceTheStoredExpiryHasPassed) {
    const auto now = util::TimePoint(1'700'000'000'000ms);
    OfflineDataPackHolder holder;
    EXPECT_FALSE(holder.isExpired(now));
    holder.headers.expires = now;
    EXPECT_FALSE(holder.isExpired(now));
    holder.headers.expires = now - 1ms;
    EXPECT_TRUE(holder.isExpired(now));
    EXPECT_TRUE(holder.isExpired());
    holder.headers.expires = std::chrono::time_point_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now() + 1h);
    EXPECT_FALSE(holder.isExpired());
}

// An Available pack with an entity tag whose lease ends `remaining` from now.
OfflineDataPackHolder leasedPack(util::TimePoint now, std::chrono::milliseconds remaining,
                                 std::int64_t maxAge) {
    OfflineDataPackHolder holder;
    holder.headers.expires = now + remaining;
    holder.headers.max_age = maxAge;
    holder.headers.etag = "\"v1\"";
    holder.restore(Status::Available, "/p/maps/1", 10);
    return holder;
}

TEST(PackHolderLeaseRenewal, IsDueOnceLessThanHalfTheMaxAgeRemains) {
    const auto now = util::TimePoint(1'700'000'000'000ms);
    // A day's lease: renewed once less than half a day is left.
    EXPECT_FALSE(leasedPack(now, 43200s, 86400).needsLeaseRenewal(now));
    EXPECT_TRUE(leasedPack(now, 43200s - 1ms, 86400).needsLeaseRenewal(now));
    EXPECT_FALSE(leasedPack(now, 20h, 86400).needsLeaseRenewal(now));
    // The half is taken in whole seconds: 7 gives 3, not 3.5.
    EXPECT_FALSE(leasedPack(now, 3s, 7).needsLeaseRenewal(now));
    EXPECT_TRUE(leasedPack(now, 2999ms, 7).needsLeaseRenewal(now));
    // Without a max-age only a lease that has already run out qualifies.
    EXPECT_FALSE(leasedPack(now, 0ms, -1).needsLeaseRenewal(now));
    EXPECT_TRUE(leasedPack(now, -1ms, -1).needsLeaseRenewal(now));
}

TEST(PackHolderLeaseRenewal, NeedsAnEntityTagAndAnAvailablePack) {
    const auto now = util::TimePoint(1'700'000'000'000ms);
    auto withoutTag = leasedPack(now, 1s, 86400);
    withoutTag.headers.etag.clear();
    EXPECT_FALSE(withoutTag.needsLeaseRenewal(now));
    for (auto status : {Status::Pending, Status::Downloading, Status::Incomplete, Status::Verifying,
                        Status::Expired, Status::Errored, Status::Deleting, Status::Deleted}) {
        auto holder = leasedPack(now, 1s, 86400);
        holder.restore(status, "/p/maps/1", 10);
        EXPECT_FALSE(holder.needsLeaseRenewal(now)) << static_cast<int>(status);
    }
}

TEST(PackHolderLeaseRenewal, AnEnormousMaxAgeDoesNotOverflowTheClock) {
    const auto now = util::TimePoint(1'700'000'000'000ms);
    const auto largest = std::numeric_limits<std::int64_t>::max();
    EXPECT_TRUE(leasedPack(now, 1000h, largest).needsLeaseRenewal(now));
    auto never = leasedPack(now, 0ms, largest);
    never.headers.expires = util::TimePoint::max();
    EXPECT_FALSE(never.needsLeaseRenewal(now));
    // Half of a max-age just beyond what milliseconds can add to now.
    EXPECT_TRUE(leasedPack(now, 1000h, largest / 500).needsLeaseRenewal(now));
}

TEST(RegionEntry, HandsOutThePackMetadataAndHolderOfEachDomain) {
    OfflineDataRegionMetadata metadata;
    metadata.id = "region-a";
    metadata.revision = 3;
    metadata.navigationPack = OfflineDataPackMetadata{"u", "c", 1, 1, ""};
    OfflineDataRegionInternal region(metadata);

    EXPECT_EQ(region.key(), (RegionKey{"region-a", 3}));
    EXPECT_FALSE(region.getPackMetadata(OfflineDataDomain::Maps));
    EXPECT_EQ(&region.getPackMetadata(OfflineDataDomain::Navigation),
              &region.metadata.navigationPack);
    EXPECT_EQ(&region.getPackHolder(OfflineDataDomain::Maps), &region.mapsHolder);
    EXPECT_EQ(&region.getPackHolder(OfflineDataDomain::Navigation), &region.navigationHolder);
    EXPECT_EQ(region.mapsHolder.status(), Status::Deleted);
    EXPECT_EQ(region.navigationHolder.status(), Status::Deleted);
}

TEST(RegionEntryDeathTest, AnImpossibleDomainAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    OfflineDataRegionInternal region(OfflineDataRegionMetadata{});
    EXPECT_DEATH((void)region.getPackHolder(static_cast<OfflineDataDomain>(2)), "");
    EXPECT_DEATH((void)region.getPackMetadata(static_cast<OfflineDataDomain>(2)), "");
}

TEST(PackHolderAcknowledgements, KnowAnObserverByItsObjectNotByItsAddress) {
    OfflineDataPackHolder holder;
    auto observer = std::make_shared<test::RecordingObserver>();
    holder.deletionAcknowledgements.insert(observer);
    EXPECT_TRUE(holder.deletionAcknowledgements.contains(observer));
    auto other = std::make_shared<test::RecordingObserver>();
    EXPECT_FALSE(holder.deletionAcknowledgements.contains(other));
    // One that went away is never found again, whoever takes its place in memory.
    observer.reset();
    auto successor = std::make_shared<test::RecordingObserver>();
    EXPECT_FALSE(holder.deletionAcknowledgements.contains(successor));
}

}  // namespace
}  // namespace terrane::common
