#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "testing/pack_lifecycle_fixture.hpp"
#include "testing/permission_bits.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
namespace fs = std::filesystem;

class CancellationAndDeletionTest : public test::PackLifecycleTest {
  protected:
    // Every file the pack can have, the header record included.
    std::vector<fs::path> packFiles() const {
        return {packFile(), downloadFile(), partialFile(), resumeFile(), headerFile()};
    }
    void writePackFiles() {
        for (const auto& file : packFiles()) {
            tree.writeFile(fs::relative(file, tree.root()), "x");
        }
    }
    std::vector<fs::path> packFilesLeft() const {
        std::vector<fs::path> left;
        for (const auto& file : packFiles()) {
            if (fs::exists(file)) {
                left.push_back(file);
            }
        }
        return left;
    }
    static void acknowledgeAll(test::RecordingObserver& observer) {
        for (const auto& acknowledge : observer.takeAcknowledgements()) {
            acknowledge();
        }
    }
    std::string deleting() const { return line("onDeleting", packFile(), content.size()); }
};

TEST_F(CancellationAndDeletionTest, ACancelledDownloadKeepsItsFileAndSettlesOnceConfirmed) {
    start();
    auto transfer = downloadInFlight();
    transfer.progress(5);
    settle();
    transfer.progress(6);  // crosses the cancellation: dropped
    http->waitUntilDelivered();
    http->answerCancellationsManually();
    cancelPackDownload();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(line("onDownloading", downloadFile(), 5),
                                        line("onIncomplete", downloadFile(), 5)));
    auto cancellation = http->nextCancellation();
    EXPECT_EQ(cancellation.id(), transfer.id());
    cancellation.answer(true);
    settle();
    EXPECT_THAT(newLines(), ElementsAre("onIdle"));
    EXPECT_TRUE(downloadInFlight().resume());
}

TEST_F(CancellationAndDeletionTest, CancellingAPackThatIsNotDownloadingOnlySaysSo) {
    const std::string notDownloading =
        log("Skipped cancellation of maps pack download of revision 3 of offline region "
            "'region-a': Pack is not downloading");
    start();
    newLines();
    cancelPackDownload();  // Deleted
    settle();
    EXPECT_THAT(newLines(), ElementsAre(notDownloading, "onIdle"));
    downloadToAvailable();
    cancelPackDownload();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(notDownloading, "onIdle"));
    EXPECT_EQ(http->cancellationCount(), 0u);
}

TEST_F(CancellationAndDeletionTest, ADownloadingPackIsDeletedAtOnceAndItsFilesGoOnceCancelled) {
    start();
    auto transfer = downloadInFlight();
    writePackFiles();
    http->answerCancellationsManually();
    deletePack();
    settle();
    // Only the header record goes at once: without it the pack cannot come back.
    EXPECT_THAT(newLines(), ElementsAre(deleted()));
    EXPECT_THAT(packFilesLeft(), SizeIs(4u));
    auto cancellation = http->nextCancellation();
    EXPECT_EQ(cancellation.id(), transfer.id());
    cancellation.answer(false);
    settle();
    EXPECT_THAT(newLines(), ElementsAre("onIdle"));
    EXPECT_THAT(packFilesLeft(), IsEmpty());
}

TEST_F(CancellationAndDeletionTest,
       AskingAgainBeforeTheCancellationReturnsKeepsTheDeletionPending) {
    start();
    downloadInFlight();
    http->answerCancellationsManually();
    deletePack();
    downloadPack();
    settle();
    auto again = http->nextDownload();
    http->nextCancellation().answer(true);
    again.finish(content);
    settle();
    // The outdated confirmation removed nothing, and the deletion stays counted: no onIdle.
    EXPECT_THAT(newLines(), ElementsAre(deleted(), line("onPending", downloadFile(), 0),
                                        line("onVerifying", downloadFile(), 0), available()));
    EXPECT_EQ(base::io::readFile(packFile()), content);
}

TEST_F(CancellationAndDeletionTest, APackNobodyCanBeReadingIsDeletedAtOnceWithEverythingBesideIt) {
    const std::function<void()> incomplete = [&] {
        downloadInFlight();
        cancelPackDownload();
    };
    const std::function<void()> errored = [&] { downloadInFlight().finish("not the pack"); };
    for (const auto& prepare : {incomplete, errored}) {
        start();
        prepare();
        settle();
        writePackFiles();
        newLines();
        deletePack();
        settle();
        EXPECT_THAT(newLines(), ElementsAre(deleted(), "onIdle"));
        EXPECT_THAT(packFilesLeft(), IsEmpty());
        deletePack();  // Deleted: nothing more
        settle();
        EXPECT_THAT(newLines(), ElementsAre("onIdle"));
    }
}

TEST_F(CancellationAndDeletionTest, AFailedRemovalLeavesThePackErroredAndALaterDeleteRetries) {
    start();
    downloadInFlight();
    cancelPackDownload();
    settle();
    writePackFiles();
    fs::remove(headerFile());
    tree.writeFile(fs::relative(headerFile() / "inside", tree.root()), "x");
    newLines();
    {
        const test::ClosedDirectory closed(packFile().parent_path());
        if (!closed.refuses()) {
            GTEST_SKIP() << "this process cannot be refused access by permission bits";
        }
        deletePack();
        settle();
    }
    EXPECT_THAT(newLines(),
                ElementsAre(log("Failed to delete metadata for maps pack of revision 3 of "
                                "offline region 'region-a': Permission denied"),
                            line("onErrored", downloadFile(), 0,
                                 "Filesystem, message=Failed to delete maps pack of revision 3 of "
                                 "offline region 'region-a': Permission denied"),
                            "onIdle"));
    EXPECT_THAT(packFilesLeft(), SizeIs(5u));
    deletePack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleted(), "onIdle"));
    EXPECT_THAT(packFilesLeft(), IsEmpty());
}

class AcknowledgedDeletionTest : public CancellationAndDeletionTest {
  protected:
    // Two observers, `recorder` and `other`, and an Available pack.
    void SetUp() override {
        CancellationAndDeletionTest::SetUp();
        start({recorder, other});
        downloadToAvailable();
    }
    std::shared_ptr<test::RecordingObserver> other = std::make_shared<test::RecordingObserver>();
};

TEST_F(AcknowledgedDeletionTest, TheFilesStayUntilEveryObserverHasAcknowledged) {
    deletePack();
    deletePack();  // already Deleting: nothing more
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleting()));
    EXPECT_EQ(other->lines().back(), deleting());
    auto mine = recorder->takeAcknowledgements();
    ASSERT_THAT(mine, SizeIs(1u));
    mine[0]();
    mine[0]();  // counts once
    settle();
    EXPECT_THAT(newLines(), IsEmpty());
    EXPECT_EQ(base::io::readFile(packFile()), content);
    acknowledgeAll(*other);
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleted(), "onIdle"));
    EXPECT_THAT(packFilesLeft(), IsEmpty());
}

TEST_F(AcknowledgedDeletionTest, AnObserverThatLeavesCountsAsHavingAcknowledged) {
    deletePack();
    settle();
    acknowledgeAll(*recorder);
    settle();
    newLines();
    (*worker)->removeObserver(other);
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleted(), "onIdle"));
    acknowledgeAll(*other);  // after it left: changes nothing
    settle();
    EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(AcknowledgedDeletionTest, AskingForThePackAgainUndoesTheDeletion) {
    deletePack();
    downloadPack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleting(), available(), "onIdle"));
    acknowledgeAll(*recorder);
    acknowledgeAll(*other);
    settle();
    EXPECT_THAT(newLines(), IsEmpty());
    EXPECT_EQ(base::io::readFile(packFile()), content);
    deletePack();  // starts afresh
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleting()));
}

TEST_F(CancellationAndDeletionTest,
       AnUndoneDeletionOfAnExpiredPackIsNotCompletedByALeavingObserver) {
    auto other = std::make_shared<test::RecordingObserver>();
    storeAvailable(fromNow(-1h), "\"v1\"");
    start({recorder, other});
    newLines();
    deletePack();
    downloadPack();
    (*worker)->removeObserver(other);
    settle();
    EXPECT_THAT(newLines(),
                ElementsAre(deleting(), line("onExpired", packFile(), content.size()), "onIdle"));
    EXPECT_EQ(base::io::readFile(packFile()), content);
}

TEST_F(CancellationAndDeletionTest, WithoutObserversADeletionWaitsUntilThePackIsAskedForAgain) {
    start(OfflineServiceObservers{});
    downloadToAvailable();
    deletePack();
    settle();
    // An observer joining now hears of no pack, and of no idle service.
    (*worker)->addObserver(recorder);
    settle();
    EXPECT_THAT(newLines(), ElementsAre("onInitialized"));
    downloadPack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(available(), "onIdle"));
}

TEST_F(CancellationAndDeletionTest, ThroughTheServiceAPackIsDownloadedAndDeletedEndToEnd) {
    auto service = startService();
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    service->downloadPack(maps, region());
    http->nextDownload().finish(content);
    ASSERT_TRUE(recorder->waitFor("onIdle", 2));
    service->deletePack(maps, region());
    ASSERT_TRUE(recorder->waitFor(deleting()));
    acknowledgeAll(*recorder);
    // Acknowledged right before the release: carried out all the same.
    service.reset();
    EXPECT_THAT(recorder->lines(),
                ElementsAre("onInitialized", "onIdle", line("onPending", downloadFile(), 0),
                            line("onVerifying", downloadFile(), 0), available(), "onIdle",
                            deleting(), deleted(), "onIdle"));
    EXPECT_THAT(packFilesLeft(), IsEmpty());
}

}  // namespace
}  // namespace terrane::common
