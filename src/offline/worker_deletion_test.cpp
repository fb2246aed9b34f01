#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "testing/pack_lifecycle_fixture.hpp"

namespace terrane::common {
namespace {

namespace fs = std::filesystem;

class CancellationAndDeletionTest : public test::PackLifecycleTest {
  protected:
    // Every file the pack can have, the header record included.
    void writePackFiles() {
        for (const auto& file :
             {packFile(), downloadFile(), partialFile(), resumeFile(), headerFile()}) {
            tree.writeFile(file, "x");
        }
    }
    const std::string verifiedAvailable =
        "onPending maps/1.tmp bytes=0 | onVerifying maps/1.tmp bytes=0 | onAvailable maps/1 "
        "bytes=38";
    const std::string deleting = "onDeleting maps/1 bytes=38";
    const std::string deleted = "onDeleted maps region-a/3";
};

// Cancelled and deleted while the transfer runs: each settles only once the cancellation is
// confirmed.
TEST_F(CancellationAndDeletionTest, ADownloadUnderWayIsCancelledOrDeletedAtOnceAndSettlesLater) {
    start();
    http->answerCancellationsManually();
    auto transfer = downloadInFlight();
    transfer.progress(5);
    settle();
    transfer.progress(6);  // crosses the cancellation: dropped
    cancelPackDownload();
    EXPECT_EQ(settled(), "onDownloading maps/1.tmp bytes=5 | onIncomplete maps/1.tmp bytes=5");
    auto cancellation = http->nextCancellation();
    EXPECT_EQ(cancellation.id(), transfer.id());
    cancellation.answer(true);
    EXPECT_EQ(settled(), "onIdle");

    // Only the header record goes at once: without it the pack cannot come back.
    transfer = downloadInFlight();
    writePackFiles();
    deletePack();
    EXPECT_EQ(settled(), deleted);
    EXPECT_EQ(packFiles(), "1 1.tmp 1.tmp.part 1.tmp.rd");
    cancellation = http->nextCancellation();
    EXPECT_EQ(cancellation.id(), transfer.id());
    cancellation.answer(false);
    EXPECT_EQ(settled(), "onIdle");
    EXPECT_EQ(packFiles(), "");

    // Asked for again before the cancellation returns: the outdated confirmation removes nothing,
    // and the deletion stays counted (no onIdle).
    downloadInFlight();
    deletePack();
    downloadPack();
    settle();
    auto again = http->nextDownload();
    http->nextCancellation().answer(true);
    again.finish(content);
    EXPECT_EQ(settled(), deleted + " | " + verifiedAvailable);
}

TEST_F(CancellationAndDeletionTest, APackNobodyCanBeReadingIsDeletedAtOnceWithEverythingBesideIt) {
    start();
    downloadInFlight().finish("not the pack");
    settled();
    writePackFiles();
    deletePack();
    EXPECT_EQ(settled(), deleted + " | onIdle");
    EXPECT_EQ(packFiles(), "");
    deletePack();  // Deleted: nothing more
    cancelPackDownload();
    EXPECT_EQ(settled(), log("Skipped cancellation of maps pack download of revision 3 of "
                             "offline region 'region-a': Pack is not downloading") +
                             " | onIdle");
}

TEST_F(CancellationAndDeletionTest, AFailedRemovalLeavesThePackErroredAndALaterDeleteRetries) {
    start();
    downloadInFlight();
    cancelPackDownload();
    settled();
    // A file where the pack's directory belongs: every removal below it fails.
    fs::remove_all(packFile().parent_path());
    tree.writeFile(packFile().parent_path(), "in the way");
    deletePack();
    const std::string failed = "maps pack of revision 3 of offline region 'region-a': ";
    EXPECT_EQ(settled(), log("Failed to delete metadata for " + failed + "Not a directory") +
                             " | onErrored maps/1.tmp bytes=0 error=Filesystem, message=Failed "
                             "to delete " +
                             failed + "Not a directory | onIdle");
    fs::remove(packFile().parent_path());
    writePackFiles();
    deletePack();
    EXPECT_EQ(settled(), deleted + " | onIdle");
    EXPECT_EQ(packFiles(), "");
}

// The last acknowledgement owed completes the deletion; one that comes after its observer left
// changes nothing. A deletion undone meanwhile is not completed by a leaving observer.
TEST_F(CancellationAndDeletionTest, AnObserverThatLeavesCountsAsHavingAcknowledged) {
    auto other = std::make_shared<test::RecordingObserver>();
    startLines({recorder, other});
    downloadInFlight().finish(content);
    settled();
    deletePack();
    settle();
    acknowledgeAll(*recorder);
    EXPECT_EQ(settled(), deleting);
    (*worker)->removeObserver(other);
    EXPECT_EQ(settled(), deleted + " | onIdle");
    acknowledgeAll(*other);  // after it left: changes nothing
    EXPECT_EQ(settled(), "");

    // Without observers a deletion waits until the pack is asked for again; an observer joining
    // meanwhile hears of no pack, and of no idle service.
    (*worker)->removeObserver(recorder);
    downloadInFlight().finish(content);
    settle();
    deletePack();
    settle();
    (*worker)->addObserver(recorder);
    EXPECT_EQ(settled(), "onInitialized");
    downloadPack();
    EXPECT_EQ(settled(), "onAvailable maps/1 bytes=38 | onIdle");

    storeAvailable(fromNow(std::chrono::hours(-1)), "\"v1\"");
    startLines({recorder, other});
    deletePack();
    downloadPack();
    (*worker)->removeObserver(other);
    EXPECT_EQ(settled(), deleting + " | onExpired maps/1 bytes=38 | onIdle");
}

TEST_F(CancellationAndDeletionTest, ThroughTheServiceAPackIsDownloadedAndDeletedEndToEnd) {
    OfflineService::registerObserver(recorder);  // taken out by TearDown
    auto service = OfflineService::getInstance(directory.path().string(), options);
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    service->downloadPack(maps, region());
    http->nextDownload().finish(content);
    ASSERT_TRUE(recorder->waitFor("onIdle", 2));
    service->deletePack(maps, region());
    ASSERT_TRUE(
        recorder->waitFor("onDeleting maps region-a/3 path=" + packFile().string() + " bytes=38"));
    acknowledgeAll(*recorder);
    // Acknowledged right before the release: carried out all the same.
    service.reset();
    EXPECT_EQ(joined(newLines()), "onInitialized | onIdle | " + verifiedAvailable + " | onIdle | " +
                                      deleting + " | " + deleted + " | onIdle");
}

}  // namespace
}  // namespace terrane::common
