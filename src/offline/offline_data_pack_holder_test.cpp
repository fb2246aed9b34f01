#include "offline/offline_data_pack_holder.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <string>

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
        rows[row].set(holder);
        EXPECT_EQ(holder.pack(), rows[row].expected);
        EXPECT_EQ(holder.generation(), 3u);
        EXPECT_EQ(holder.deletionAcknowledgements.size(), rows[row].acknowledgementsKept ? 1 : 0);
    }
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
        {now, -1, false},      // without max-age only a lease that has run out
        {now - 1ms, -1, true},
        {now + 1000h, largest, true},  // no overflow of the clock
        {util::TimePoint::max(), largest, false},
        {now + 1s, 86400, false, S::Available, ""},
        {now + 1s, 86400, false, S::Expired},
    };
    for (const auto& row : rows) {
        H holder;
        holder.headers = {row.expires, row.maxAge, row.etag, 0, false, false};
        holder.restore(row.status, "/p", 10);
        EXPECT_EQ(holder.needsLeaseRenewal(now), row.due)
            << (row.expires - now).count() << " " << row.maxAge;
    }
}

}  // namespace
}  // namespace terrane::common
