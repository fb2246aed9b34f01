#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iterator>
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
            tree.writeFile(file, "x");
        }
    }
    std::vector<fs::path> packFilesLeft() const {
        std::vector<fs::path> left;
        std::ranges::copy_if(packFiles(), std::back_inserter(left),
                             [](const fs::path& file) { return fs::exists(file); });
        return left;
    }
    std::string deleting() const { return line("onDeleting", packFile(), content.size()); }
    const std::string notDownloading =
        log("Skipped cancellation of maps pack download of revision 3 of offline region "
            "'region-a': Pack is not downloading");
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
    EXPECT_THAT(settled(), ElementsAre(line("onDownloading", downloadFile(), 5),
                                       line("onIncomplete", downloadFile(), 5)));
    auto cancellation = http->nextCancellation();
    EXPECT_EQ(cancellation.id(), transfer.id());
    cancellation.answer(true);
    EXPECT_THAT(settled(), ElementsAre("onIdle"));
    EXPECT_TRUE(downloadInFlight().resume());
}

TEST_F(CancellationAndDeletionTest, ADownloadingPackIsDeletedAtOnceAndItsFilesGoOnceCancelled) {
    start();
    auto transfer = downloadInFlight();
    writePackFiles();
    http->answerCancellationsManually();
    deletePack();
    // Only the header record goes at once: without it the pack cannot come back.
    EXPECT_THAT(settled(), ElementsAre(deleted()));
    EXPECT_THAT(packFilesLeft(), SizeIs(4u));
    auto cancellation = http->nextCancellation();
    EXPECT_EQ(cancellation.id(), transfer.id());
    cancellation.answer(false);
    EXPECT_THAT(settled(), ElementsAre("onIdle"));
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
    // The outdated confirmation removed nothing, and the deletion stays counted: no onIdle.
    EXPECT_THAT(settled(), ElementsAre(deleted(), line("onPending", downloadFile(), 0),
                                       line("onVerifying", downloadFile(), 0), available()));
    EXPECT_EQ(base::io::readFile(packFile()), content);
}

TEST_F(CancellationAndDeletionTest, APackNobodyCanBeReadingIsDeletedAtOnceWithEverythingBesideIt) {
    const std::function<void()> incomplete = [&] { downloadToIncomplete(); };
    const std::function<void()> errored = [&] { downloadInFlight().finish("not the pack"); };
    for (const auto& prepare : {incomplete, errored}) {
        start();
        prepare();
        settled();
        writePackFiles();
        deletePack();
        EXPECT_THAT(settled(), ElementsAre(deleted(), "onIdle"));
        EXPECT_THAT(packFilesLeft(), IsEmpty());
        deletePack();  // Deleted: nothing more
        cancelPackDownload();
        EXPECT_THAT(settled(), ElementsAre(notDownloading, "onIdle"));
    }
}

TEST_F(CancellationAndDeletionTest, AFailedRemovalLeavesThePackErroredAndALaterDeleteRetries) {
    start();
    downloadToIncomplete();
    writePackFiles();
    fs::remove(headerFile());
    tree.writeFile(headerFile() / "inside", "x");
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
    EXPECT_THAT(settled(), ElementsAre(deleted(), "onIdle"));
    EXPECT_THAT(packFilesLeft(), IsEmpty());
}

// The last acknowledgement owed completes the deletion; one that comes after its observer left
// changes nothing.
TEST_F(CancellationAndDeletionTest, AnObserverThatLeavesCountsAsHavingAcknowledged) {
    auto other = std::make_shared<test::RecordingObserver>();
    start({recorder, other});
    downloadToAvailable();
    deletePack();
    settle();
    acknowledgeAll(*recorder);
    EXPECT_THAT(settled(), ElementsAre(deleting()));
    (*worker)->removeObserver(other);
    EXPECT_THAT(settled(), ElementsAre(deleted(), "onIdle"));
    acknowledgeAll(*other);  // after it left: changes nothing
    EXPECT_THAT(settled(), IsEmpty());
}

TEST_F(CancellationAndDeletionTest,
       AnUndoneDeletionOfAnExpiredPackIsNotCompletedByALeavingObserver) {
    auto other = std::make_shared<test::RecordingObserver>();
    storeAvailable(fromNow(-1h), "\"v1\"");
    start({recorder, other});
    deletePack();
    downloadPack();
    (*worker)->removeObserver(other);
    EXPECT_THAT(settled(),
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
    EXPECT_THAT(settled(), ElementsAre("onInitialized"));
    downloadPack();
    EXPECT_THAT(settled(), ElementsAre(available(), "onIdle"));
}

TEST_F(CancellationAndDeletionTest, ThroughTheServiceAPackIsDownloadedAndDeletedEndToEnd) {
    OfflineService::registerObserver(recorder);  // taken out by TearDown
    auto service = OfflineService::getInstance(directory.path().string(), options);
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
