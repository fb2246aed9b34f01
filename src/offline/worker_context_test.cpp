#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "offline/offline_service_worker.hpp"
#include "testing/recording_observer.hpp"
#include "testing/storage_tree.hpp"

namespace terrane::common {
namespace {

using test::RecordingObserver;
using ::testing::ElementsAre;
using Reason = ContextError::Reason;

OfflineDataRegionMetadata regionWithMaps(std::uint32_t format = 1) {
    OfflineDataRegionMetadata region;
    region.id = "region-a";
    region.revision = 3;
    region.name = "first";
    region.mapPack = OfflineDataPackMetadata{"u", "c", 10, format, ""};
    return region;
}

// A worker driven on the test thread, on an empty tree of its own.
class WorkerContextTest : public ::testing::Test {
  protected:
    test::TemporaryDirectory directory;
    std::shared_ptr<RecordingObserver> recorder = std::make_shared<RecordingObserver>();
    OfflineServiceWorker worker{Proxy<OfflineServiceWorker>(), directory.path().string(),
                                OfflineServiceOptions{"alice", "tk", nullopt},
                                OfflineServiceObservers{recorder}};
};

TEST_F(WorkerContextTest, APublicOperationsRegionIsStoredOnFirstUseAndFoundAfterwards) {
    auto context = worker.loadContext(OfflineDataDomain::Maps, regionWithMaps());
    ASSERT_TRUE(context);
    EXPECT_EQ(context->domain, OfflineDataDomain::Maps);
    EXPECT_EQ(context->region.metadata.name, "first");
    EXPECT_EQ(&context->pack, &*context->region.metadata.mapPack);
    EXPECT_EQ(&context->holder, &context->region.mapsHolder);
    EXPECT_EQ(context->holder.status(), OfflineDataPackStatus::Deleted);
    EXPECT_EQ(context->key(), (PackKey{{"region-a", 3}, OfflineDataDomain::Maps, 0}));

    // The stored entry wins over what a later call brings along.
    auto renamed = regionWithMaps();
    renamed.name = "second";
    auto again = worker.loadContext(OfflineDataDomain::Maps, std::move(renamed));
    ASSERT_TRUE(again);
    EXPECT_EQ(&again->region, &context->region);
    EXPECT_EQ(again->region.metadata.name, "first");
    EXPECT_EQ(worker.getRegions().size(), 1u);
}

TEST_F(WorkerContextTest, ARegionWithoutThePackOfTheDomainHasNoContextAndSaysNothing) {
    auto context = worker.loadContext(OfflineDataDomain::Navigation, regionWithMaps());
    ASSERT_FALSE(context);
    EXPECT_EQ(context.error(), (ContextError{"region-a", 3, OfflineDataDomain::Navigation,
                                             Reason::MetadataMissing}));
    worker.logContextError(context.error());
    EXPECT_THAT(recorder->lines(),
                ElementsAre("onInitialized",
                            "onLogMessage Failed to retrieve metadata for navigation pack of "
                            "revision 3 of offline region 'region-a'"));
}

TEST_F(WorkerContextTest, APackOfAnotherFormatIsReportedThenTreatedAsMissing) {
    auto context = worker.loadContext(OfflineDataDomain::Maps, regionWithMaps(2));
    ASSERT_FALSE(context);
    EXPECT_EQ(context.error().reason, Reason::MetadataMissing);
    worker.logContextError(context.error());
    EXPECT_THAT(recorder->lines(),
                ElementsAre("onInitialized", "onLogMessage metadata specifies wrong format",
                            "onLogMessage Failed to retrieve metadata for maps pack of revision 3 "
                            "of offline region 'region-a'"));
}

TEST_F(WorkerContextTest, AnAnswerFindsItsPackOnlyWhileTheGenerationMatches) {
    auto stored = worker.loadContext(OfflineDataDomain::Maps, regionWithMaps());
    ASSERT_TRUE(stored);
    stored->holder.setPending("/p", 0);
    const PackKey issued = stored->key();

    auto answer = worker.loadContext(issued);
    ASSERT_TRUE(answer);
    EXPECT_EQ(&answer->holder, &stored->holder);

    stored->holder.updateProgress(5);
    EXPECT_TRUE(worker.loadContext(issued)) << "progress keeps the key valid";

    stored->holder.setIncomplete();
    auto late = worker.loadContext(issued);
    ASSERT_FALSE(late);
    EXPECT_EQ(late.error(),
              (ContextError{"region-a", 3, OfflineDataDomain::Maps, Reason::Outdated}));
    worker.logContextError(late.error());
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized"));
}

TEST_F(WorkerContextTest, AnAnswerForARegionNobodyStoredIsMissingMetadata) {
    auto answer =
        worker.loadContext(PackKey{{"elsewhere", 4294967295u}, OfflineDataDomain::Maps, 0});
    ASSERT_FALSE(answer);
    worker.logContextError(answer.error());
    // The revision is printed unsigned, even beyond what a signed int holds.
    EXPECT_THAT(recorder->lines(),
                ElementsAre("onInitialized",
                            "onLogMessage Failed to retrieve metadata for maps pack of revision "
                            "4294967295 of offline region 'elsewhere'"));
}

TEST_F(WorkerContextTest, AnObserverThatLeavesNoLongerHoldsUpAPendingDeletion) {
    auto other = std::make_shared<RecordingObserver>();
    worker.addObserver(other);
    auto context = worker.loadContext(OfflineDataDomain::Maps, regionWithMaps());
    ASSERT_TRUE(context);
    context->holder.setDeleting();
    context->holder.deletionAcknowledgements.insert(recorder);
    context->holder.deletionAcknowledgements.insert(other);

    worker.removeObserver(recorder);
    EXPECT_FALSE(context->holder.deletionAcknowledgements.contains(recorder));
    EXPECT_TRUE(context->holder.deletionAcknowledgements.contains(other));
    // Acknowledging twice, or for an observer never awaited, changes nothing.
    worker.removeObserverInternal(*context, recorder);
    EXPECT_EQ(context->holder.deletionAcknowledgements.size(), 1u);

    worker.removeObserver(other);
    EXPECT_TRUE(context->holder.deletionAcknowledgements.empty());
    EXPECT_THAT(other->lines(), ElementsAre("onInitialized"));
}

TEST_F(WorkerContextTest, LeavingDoesNotTouchPacksOfOtherFormats) {
    // A region asked for with a pack this build cannot read: removing an observer must not
    // complain about it.
    EXPECT_FALSE(worker.loadContext(OfflineDataDomain::Maps, regionWithMaps(2)));
    auto other = std::make_shared<RecordingObserver>();
    worker.addObserver(other);
    worker.removeObserver(other);
    EXPECT_THAT(recorder->lines(),
                ElementsAre("onInitialized", "onLogMessage metadata specifies wrong format"));
}

// Everything below the service path, as relative paths.
std::vector<std::string> listTree(const std::filesystem::path& top) {
    std::vector<std::string> entries;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
        entries.push_back(std::filesystem::relative(entry.path(), top).string());
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

TEST_F(WorkerContextTest, PackOperationsRefuseRegionIdsThatAreNoDirectoryName) {
    const auto before = listTree(directory.path());
    ASSERT_EQ(before.size(), 3u) << "the account directory, its lock and configuration records";
    using namespace std::string_literals;
    const struct {
        std::string id;
        std::string shown;
    } rows[] = {{""s, ""s},
                {"."s, "."s},
                {".."s, ".."s},
                {"a/b"s, "a/b"s},
                {"../../etc"s, "../../etc"s},
                {"a\0b"s, "a\\x00b"s},
                {"a\x1B[2J\r\n"s, "a\\x1B[2J\\x0D\\x0A"s}};
    for (const auto& [id, shown] : rows) {
        auto region = regionWithMaps();
        region.id = id;
        worker.downloadPack(OfflineDataDomain::Maps, OfflineDataRegionMetadata(region));
        worker.cancelPackDownload(OfflineDataDomain::Maps, OfflineDataRegionMetadata(region));
        worker.deletePack(OfflineDataDomain::Maps, OfflineDataRegionMetadata(region));
        const std::string refusal = "onLogMessage Invalid region id '" + shown + "'";
        EXPECT_EQ(recorder->count(refusal), 3u) << refusal;
    }
    EXPECT_EQ(recorder->lines().size(), 1u + std::size(rows) * 3u);
    EXPECT_TRUE(worker.getRegions().empty());
    EXPECT_EQ(listTree(directory.path()), before);
}

}  // namespace
}  // namespace terrane::common
