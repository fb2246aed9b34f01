#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "testing/pack_lifecycle_fixture.hpp"
#include "testing/permission_bits.hpp"
#include "util/file_io.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
namespace fs = std::filesystem;

class CancellationAndDeletionTest : public test::PackLifecycleTest {
  protected:
    // Starts a download of the maps pack and leaves it in flight.
    test::FakeDownload downloadInFlight() {
        downloadPack();
        settle();
        newLines();
        return http->nextDownload();
    }

    // Every file the pack can have beside its header record, with some content.
    void writePackFiles() {
        for (const auto& file : {packFile(), downloadFile(), partialFile(), resumeFile()}) {
            tree.writeFile(fs::relative(file, tree.root()), "x");
        }
    }
    void writeHeaderRecord() {
        tree.writeHeaders("region-a", "3", maps, test::incompleteHeaders(1));
    }
    std::vector<fs::path> packFilesLeft() const {
        std::vector<fs::path> left;
        for (const auto& file :
             {packFile(), downloadFile(), partialFile(), resumeFile(), headerFile()}) {
            if (fs::exists(file)) {
                left.push_back(file);
            }
        }
        return left;
    }

    void acknowledgeAll(test::RecordingObserver& observer) {
        for (const auto& acknowledge : observer.takeAcknowledgements()) {
            acknowledge();
        }
    }

    std::string notDownloading() const {
        return log(
            "Skipped cancellation of maps pack download of revision 3 of offline region "
            "'region-a': Pack is not downloading");
    }
    std::string deleting() const { return line("onDeleting", packFile(), content.size()); }
    std::string available() const { return line("onAvailable", packFile(), content.size()); }
};

// ---- Cancellation ---------------------------------------------------------------------------

TEST_F(CancellationAndDeletionTest, ACancelledDownloadKeepsItsFileAndSettlesOnceConfirmed) {
    start();
    auto transfer = downloadInFlight();
    transfer.progress(5);
    settle();
    tree.writeFile(fs::relative(downloadFile(), tree.root()), "part");
    newLines();

    http->answerCancellationsManually();
    cancelPackDownload();
    settle();
    // Not idle yet: the HTTP service has not confirmed the cancellation.
    EXPECT_THAT(newLines(), ElementsAre(line("onIncomplete", downloadFile(), 5)));
    auto cancellation = http->nextCancellation();
    EXPECT_EQ(cancellation.id(), transfer.id());
    cancellation.answer(true);
    settle();
    EXPECT_THAT(newLines(), ElementsAre("onIdle"));
    EXPECT_EQ(base::io::readFile(downloadFile()), "part");

    // Asked for again, the download resumes the file.
    downloadPack();
    settle();
    EXPECT_TRUE(http->nextDownload().resume());
}

TEST_F(CancellationAndDeletionTest, ACancelledDownloadOfAnExpiredPackLeavesItExpired) {
    storeAvailable(fromNow(-1h), "");
    start();
    downloadInFlight();
    cancelPackDownload();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(line("onExpired", downloadFile(), 0), "onIdle"));
}

TEST_F(CancellationAndDeletionTest, AProgressReportCrossingTheCancellationIsDropped) {
    start();
    auto transfer = downloadInFlight();
    transfer.progress(5);
    http->waitUntilDelivered();  // queued, not yet handled
    cancelPackDownload();
    // Runs the crossing report and, once the fake has confirmed it, the cancellation's answer.
    settle();
    EXPECT_THAT(newLines(), ElementsAre(line("onIncomplete", downloadFile(), 0), "onIdle"));
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Incomplete);
}

TEST_F(CancellationAndDeletionTest, CancellingAPackThatIsNotDownloadingOnlySaysSo) {
    start();
    newLines();
    cancelPackDownload();  // never asked for: Deleted
    settle();
    EXPECT_THAT(newLines(), ElementsAre(notDownloading(), "onIdle"));

    downloadToAvailable();
    cancelPackDownload();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(notDownloading(), "onIdle"));
    EXPECT_THAT(http->cancellations(), IsEmpty());
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Available);
}

TEST_F(CancellationAndDeletionTest, AnInterruptedDownloadComesBackIncompleteAndCanBeDeleted) {
    start();
    downloadInFlight();
    tree.writeFile(fs::relative(partialFile(), tree.root()), "0123456789");
    tree.writeFile(fs::relative(resumeFile(), tree.root()), "resume record");
    worker.reset();

    start();
    EXPECT_THAT(newLines(),
                ElementsAre(line("onIncomplete", downloadFile(), 10), "onInitialized", "onIdle"));
    deletePack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleted(), "onIdle"));
    EXPECT_THAT(packFilesLeft(), IsEmpty());
}

// ---- Deletion of a pack whose download is in flight ----------------------------------------

TEST_F(CancellationAndDeletionTest, ADownloadingPackIsDeletedAtOnceAndItsFilesGoOnceCancelled) {
    start();
    auto transfer = downloadInFlight();
    transfer.progress(5);
    http->waitUntilDelivered();
    writePackFiles();
    writeHeaderRecord();
    http->answerCancellationsManually();

    deletePack();
    worker->runPending();
    // The progress that crossed the deletion is dropped; nothing is idle yet. Only the header
    // record goes at once: without it the pack cannot come back, whatever happens to the rest.
    EXPECT_THAT(newLines(), ElementsAre(deleted()));
    EXPECT_THAT(packFilesLeft(), SizeIs(4u));
    EXPECT_FALSE(fs::exists(headerFile()));

    auto cancellation = http->nextCancellation();
    EXPECT_EQ(cancellation.id(), transfer.id());
    cancellation.answer(false);
    settle();
    // Told once only, and every file beside it went too.
    EXPECT_THAT(newLines(), ElementsAre("onIdle"));
    EXPECT_THAT(packFilesLeft(), IsEmpty());
    EXPECT_TRUE(fs::exists(tree.revisionDirectory("region-a", "3") / "metadata.json"));
}

TEST_F(CancellationAndDeletionTest,
       AskingAgainBeforeTheCancellationReturnsKeepsTheDeletionPending) {
    start();
    downloadInFlight();
    http->answerCancellationsManually();
    deletePack();
    downloadPack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleted(), line("onPending", downloadFile(), 0)));
    auto again = http->nextDownload();
    http->nextCancellation().answer(true);
    settle();
    EXPECT_THAT(newLines(), IsEmpty());

    // The outdated confirmation removed nothing, and the deletion it belonged to stays counted:
    // the new download completes, but the service is not reported idle.
    again.finish(content);
    settle();
    EXPECT_THAT(newLines(), ElementsAre(line("onVerifying", downloadFile(), 0), available()));
    EXPECT_EQ(base::io::readFile(packFile()), content);
}

// ---- Deletion of a pack nobody can be reading ----------------------------------------------

TEST_F(CancellationAndDeletionTest, AnIncompletePackIsDeletedAtOnceWithEverythingBesideIt) {
    start();
    downloadInFlight();
    cancelPackDownload();
    settle();
    writePackFiles();
    writeHeaderRecord();
    newLines();

    deletePack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleted(), "onIdle"));
    EXPECT_THAT(packFilesLeft(), IsEmpty());

    deletePack();  // Deleted: nothing more
    settle();
    EXPECT_THAT(newLines(), ElementsAre("onIdle"));
}

TEST_F(CancellationAndDeletionTest, AnErroredPackIsDeletedAtOnce) {
    start();
    downloadInFlight().finish("not the pack");
    settle();
    ASSERT_EQ(holder().status(), OfflineDataPackStatus::Errored);
    newLines();
    deletePack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleted(), "onIdle"));
    EXPECT_THAT(packFilesLeft(), IsEmpty());
}

TEST_F(CancellationAndDeletionTest, APackDeletedBeforeItsQueuedVerificationIsNotVerified) {
    storeUnverified(content);
    worker = std::make_unique<test::ManualWorker>(directory.path().string(), options,
                                                  OfflineServiceObservers{recorder});
    deletePack();
    worker->runPending();
    EXPECT_THAT(newLines(), ElementsAre(line("onVerifying", downloadFile(), 0), "onInitialized",
                                        deleted(), "onIdle"));
    EXPECT_THAT(packFilesLeft(), IsEmpty());
}

TEST_F(CancellationAndDeletionTest, AFailedRemovalLeavesThePackErroredAndALaterDeleteRetries) {
    start();
    downloadInFlight();
    cancelPackDownload();
    settle();
    writePackFiles();
    writeHeaderRecord();
    newLines();
    {
        test::ClosedDirectories closed({packFile().parent_path()});
        test::PermissionBitsApply enforced;
        if (!test::PermissionBitsApply::refuses(packFile().parent_path())) {
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

TEST_F(CancellationAndDeletionTest, AHeaderRecordThatCannotBeRemovedIsOnlyLogged) {
    start();
    downloadInFlight();
    cancelPackDownload();
    settle();
    writePackFiles();
    fs::remove(headerFile());
    const fs::path locked = headerFile() / "locked";
    tree.writeFile(fs::relative(locked / "inside", tree.root()), "x");
    newLines();
    {
        test::ClosedDirectories closed({locked});
        test::PermissionBitsApply enforced;
        if (!test::PermissionBitsApply::refuses(locked)) {
            GTEST_SKIP() << "this process cannot be refused access by permission bits";
        }
        deletePack();
        settle();
    }
    const auto lines = newLines();
    ASSERT_THAT(lines, SizeIs(3u));
    EXPECT_TRUE(
        lines[0].starts_with(log("Failed to delete metadata for maps pack of revision 3 "
                                 "of offline region 'region-a': ")))
        << lines[0];
    EXPECT_EQ(lines[1], deleted());
    EXPECT_EQ(lines[2], "onIdle");
    EXPECT_THAT(packFilesLeft(), ElementsAre(headerFile()));
}

// ---- Deletion of a pack that may be in use: acknowledgements --------------------------------

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
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleting()));
    EXPECT_EQ(other->count(deleting()), 1u);
    auto mine = recorder->takeAcknowledgements();
    ASSERT_THAT(mine, SizeIs(1u));

    // Acknowledging twice counts once.
    mine[0]();
    mine[0]();
    settle();
    EXPECT_THAT(newLines(), IsEmpty());
    EXPECT_EQ(base::io::readFile(packFile()), content);
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Deleting);

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
    EXPECT_THAT(packFilesLeft(), IsEmpty());

    // Its acknowledgement, given after it left, changes nothing.
    acknowledgeAll(*other);
    settle();
    EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(AcknowledgedDeletionTest,
       AskingForThePackAgainUndoesTheDeletionAndLateAcknowledgementsAreDropped) {
    deletePack();
    settle();
    newLines();
    downloadPack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(available(), "onIdle"));
    EXPECT_THAT(http->downloads(), SizeIs(1u));

    acknowledgeAll(*recorder);
    acknowledgeAll(*other);
    settle();
    EXPECT_THAT(newLines(), IsEmpty());
    EXPECT_EQ(base::io::readFile(packFile()), content);
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Available);

    // A deletion after that starts afresh.
    deletePack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleting()));
}

TEST_F(AcknowledgedDeletionTest, DeletingAPackAlreadyBeingDeletedChangesNothing) {
    deletePack();
    deletePack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleting()));
    EXPECT_THAT(recorder->takeAcknowledgements(), SizeIs(1u));
}

TEST_F(CancellationAndDeletionTest,
       AnUndoneDeletionOfAnExpiredPackIsNotCompletedByALeavingObserver) {
    auto other = std::make_shared<test::RecordingObserver>();
    storeAvailable(fromNow(-1h), "\"v1\"");
    start({recorder, other});
    newLines();
    deletePack();
    downloadPack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(line("onDeleting", packFile(), content.size()),
                                        line("onExpired", packFile(), content.size()), "onIdle"));

    (*worker)->removeObserver(other);
    settle();
    EXPECT_THAT(newLines(), IsEmpty());
    EXPECT_EQ(base::io::readFile(packFile()), content);
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Expired);
}

TEST_F(CancellationAndDeletionTest, WithoutObserversADeletionWaitsUntilThePackIsAskedForAgain) {
    start(OfflineServiceObservers{});
    downloadToAvailable();
    deletePack();
    settle();
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Deleting);

    // An observer joining now hears of no pack, and of no idle service: the deletion is pending.
    (*worker)->addObserver(recorder);
    settle();
    EXPECT_THAT(newLines(), ElementsAre("onInitialized"));
    EXPECT_EQ(base::io::readFile(packFile()), content);

    downloadPack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(available(), "onIdle"));
}

}  // namespace
}  // namespace terrane::common
