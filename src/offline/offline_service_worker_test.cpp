#include "offline/offline_service_worker.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "testing/recording_observer.hpp"
#include "testing/storage_tree.hpp"

namespace terrane::common {
namespace {

using test::RecordingObserver;
using ::testing::ElementsAre;

OfflineDataRegionMetadata regionA() {
    OfflineDataRegionMetadata region;
    region.id = "region-a";
    region.revision = 3;
    return region;
}

OfflineDataPack packIn(OfflineDataPackStatus status) {
    return {status, nullopt, "/x", 10};
}

std::shared_ptr<RecordingObserver> makeRecorder() {
    return std::make_shared<RecordingObserver>();
}

// Where the workers of this file keep their (empty) trees; removed when the tests end.
const std::filesystem::path& servicePath() {
    static test::TemporaryDirectory directory;
    return directory.path();
}

// A worker driven directly on the test thread. Its proxy has no queue, so what it posts to
// itself (the idle checks) is dropped; the test calls those members itself.
OfflineServiceWorker makeDirectWorker(OfflineServiceObservers observers,
                                      OfflineServiceOptions options = {"alice", "tk", nullopt}) {
    return OfflineServiceWorker(Proxy<OfflineServiceWorker>(), servicePath().string(), options,
                                std::move(observers));
}

TEST(OfflineServiceWorkerStart, UsesTheDefaultEndpointWhenTheBaseUrlIsAbsentOrEmpty) {
    EXPECT_EQ(makeDirectWorker({}, {"alice", "tk", nullopt}).getBaseURL(),
              defaultCatalogueEndpoint);
    EXPECT_EQ(makeDirectWorker({}, {"alice", "tk", ""}).getBaseURL(), defaultCatalogueEndpoint);
    EXPECT_EQ(makeDirectWorker({}, {"alice", "tk", "http://127.0.0.1:8080/api"}).getBaseURL(),
              "http://127.0.0.1:8080/api");
}

TEST(OfflineServiceWorkerStart, KeepsItsFilesInADirectoryOfItsEndpointAndUser) {
    // MD5 of "https://api.terrane.dev/alice": the access token plays no part.
    EXPECT_EQ(makeDirectWorker({}, {"alice", "tk", nullopt}).getRoot(),
              servicePath() / "f679c5724ffbcc65ff1fd51760271074");
    EXPECT_EQ(makeDirectWorker({}, {"alice", "other", ""}).getRoot(),
              servicePath() / "f679c5724ffbcc65ff1fd51760271074");
    // MD5 of "http://127.0.0.1:9/alice".
    EXPECT_EQ(makeDirectWorker({}, {"alice", "tk", "http://127.0.0.1:9"}).getRoot(),
              servicePath() / "835e62a67b71f1cbf8170a961da9fd21");
}

TEST(OfflineServiceWorkerStart, AnnouncesInitializedToEveryObserverItStartsWith) {
    auto first = makeRecorder();
    auto second = makeRecorder();
    auto worker = makeDirectWorker({first, second});
    EXPECT_THAT(first->lines(), ElementsAre("onInitialized"));
    EXPECT_THAT(second->lines(), ElementsAre("onInitialized"));
}

TEST(ObserverNotification, EachPackStatusReachesItsOwnCallback) {
    auto recorder = makeRecorder();
    auto worker = makeDirectWorker({recorder});
    const auto region = regionA();
    for (auto status : {OfflineDataPackStatus::Pending, OfflineDataPackStatus::Downloading,
                        OfflineDataPackStatus::Incomplete, OfflineDataPackStatus::Verifying,
                        OfflineDataPackStatus::Available, OfflineDataPackStatus::Expired}) {
        worker.notifyPack(OfflineDataDomain::Maps, region, packIn(status));
    }
    worker.notifyPack(OfflineDataDomain::Navigation, region,
                      {OfflineDataPackStatus::Errored,
                       OfflineDataError{OfflineDataErrorCode::NotFound, "gone"}, "", 0});
    worker.notifyPack(OfflineDataDomain::Navigation, region,
                      packIn(OfflineDataPackStatus::Deleted));

    EXPECT_THAT(recorder->lines(),
                ElementsAre("onInitialized",                                   //
                            "onPending maps region-a/3 path=/x bytes=10",      //
                            "onDownloading maps region-a/3 path=/x bytes=10",  //
                            "onIncomplete maps region-a/3 path=/x bytes=10",   //
                            "onVerifying maps region-a/3 path=/x bytes=10",    //
                            "onAvailable maps region-a/3 path=/x bytes=10",    //
                            "onExpired maps region-a/3 path=/x bytes=10",      //
                            "onErrored navigation region-a/3 path= bytes=0 error=NotFound, "
                            "message=gone",
                            "onDeleted navigation region-a/3"));
}

TEST(ObserverNotificationDeathTest, AnnouncingDeletingWithoutAnAcknowledgementAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RecordingObserver observer;
    EXPECT_DEATH(
        OfflineServiceWorker::notifyPackObserver(observer, OfflineDataDomain::Maps, regionA(),
                                                 packIn(OfflineDataPackStatus::Deleting)),
        "");
}

// Three observers in the worker's (address) order, the middle one failing.
struct ObserverTrio {
    std::shared_ptr<RecordingObserver> first, failing, last;

    ObserverTrio() {
        std::vector<std::shared_ptr<RecordingObserver>> all{makeRecorder(), makeRecorder(),
                                                            makeRecorder()};
        std::sort(all.begin(), all.end());
        first = all[0];
        failing = all[1];
        last = all[2];
    }
    OfflineServiceObservers set() const { return {first, failing, last}; }
};

TEST(ObserverNotification, AThrowingObserverBecomesALogMessageAndTheOthersStillHear) {
    ObserverTrio trio;
    trio.failing->throwFrom("onAvailable", "boom");
    auto worker = makeDirectWorker(trio.set());

    worker.notifyPack(OfflineDataDomain::Maps, regionA(), packIn(OfflineDataPackStatus::Available));

    const std::string available = "onAvailable maps region-a/3 path=/x bytes=10";
    const std::string report = "onLogMessage Uncaught exception in observer: boom";
    EXPECT_THAT(trio.first->lines(), ElementsAre("onInitialized", available, report));
    EXPECT_THAT(trio.failing->lines(), ElementsAre("onInitialized", available, report));
    EXPECT_THAT(trio.last->lines(), ElementsAre("onInitialized", report, available));
}

TEST(ObserverNotification, AnExceptionOfNoStandardTypeIsReportedWithoutText) {
    ObserverTrio trio;
    trio.failing->throwFrom("onPending", "not an std::exception", false);
    auto worker = makeDirectWorker(trio.set());

    worker.notifyPack(OfflineDataDomain::Maps, regionA(), packIn(OfflineDataPackStatus::Pending));

    EXPECT_EQ(trio.last->count("onLogMessage Uncaught exception in observer"), 1u);
    EXPECT_EQ(trio.last->count("onPending maps region-a/3 path=/x bytes=10"), 1u);
}

TEST(ObserverNotification, AnObserverThatAlsoFailsToTakeTheReportIsPassedOver) {
    ObserverTrio trio;
    trio.failing->throwFrom("onDeleted", "boom");
    trio.failing->throwFrom("onLogMessage", "again");
    trio.first->throwFrom("onLogMessage", "too");
    auto worker = makeDirectWorker(trio.set());

    EXPECT_NO_THROW(worker.notifyPack(OfflineDataDomain::Maps, regionA(),
                                      packIn(OfflineDataPackStatus::Deleted)));

    EXPECT_THAT(trio.last->lines(),
                ElementsAre("onInitialized", "onLogMessage Uncaught exception in observer: boom",
                            "onDeleted maps region-a/3"));
}

TEST(ObserverLogMessages, AreFormattedPrintfStyleAndGoToEveryObserver) {
    auto first = makeRecorder();
    auto second = makeRecorder();
    auto worker = makeDirectWorker({first, second});

    worker.logMessage("Skipping revision %s of offline region '%s': %s", "0", "r",
                      "Invalid revision name");
    const std::string longText(5000, 'x');
    worker.logMessage("%u:%s", 42u, longText.c_str());

    for (const auto& observer : {first, second}) {
        EXPECT_THAT(observer->lines(),
                    ElementsAre("onInitialized",
                                "onLogMessage Skipping revision 0 of offline region 'r': Invalid "
                                "revision name",
                                "onLogMessage 42:" + longText));
    }
}

TEST(ObserverRegistration, ALateObserverIsToldInitializedAndThenIdleIfTheWorkerIsIdle) {
    auto worker = makeDirectWorker({});
    auto beforeIdle = makeRecorder();
    worker.addObserver(beforeIdle);
    worker.sendIdleNotification();
    auto afterIdle = makeRecorder();
    worker.addObserver(afterIdle);

    EXPECT_THAT(beforeIdle->lines(), ElementsAre("onInitialized", "onIdle"));
    EXPECT_THAT(afterIdle->lines(), ElementsAre("onInitialized", "onIdle"));
}

TEST(ObserverRegistration, AddingTheSameObserverAgainReplaysNothing) {
    auto recorder = makeRecorder();
    auto worker = makeDirectWorker({recorder});
    worker.addObserver(recorder);
    auto late = makeRecorder();
    worker.addObserver(late);
    worker.addObserver(late);
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized"));
    EXPECT_THAT(late->lines(), ElementsAre("onInitialized"));
}

TEST(ObserverRegistration, NullObserversAreIgnored) {
    auto recorder = makeRecorder();
    auto worker = makeDirectWorker({recorder});
    worker.addObserver(nullptr);
    worker.removeObserver(nullptr);
    worker.sendIdleNotification();
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle"));
}

TEST(ObserverRegistration, ARemovedObserverHearsNothingMore) {
    auto staying = makeRecorder();
    auto leaving = makeRecorder();
    auto worker = makeDirectWorker({staying, leaving});
    worker.removeObserver(leaving);
    worker.sendIdleNotification();
    worker.logMessage("after");
    EXPECT_THAT(leaving->lines(), ElementsAre("onInitialized"));
    EXPECT_THAT(staying->lines(), ElementsAre("onInitialized", "onIdle", "onLogMessage after"));
}

TEST(IdleNotification, IsSentOncePerBusyPeriod) {
    auto recorder = makeRecorder();
    auto worker = makeDirectWorker({recorder});
    worker.sendIdleNotification();
    worker.sendIdleNotification();
    EXPECT_EQ(recorder->count("onIdle"), 1u);
    worker.markBusy();
    worker.sendIdleNotification();
    worker.sendIdleNotification();
    EXPECT_EQ(recorder->count("onIdle"), 2u);
}

// On the real worker thread: the idle check waits behind every ordinary task.
class IdleOnWorkerThread : public ::testing::Test {
  protected:
    std::unique_ptr<WorkerThread<OfflineServiceWorker>> start(OfflineServiceObservers observers) {
        return std::make_unique<WorkerThread<OfflineServiceWorker>>(
            servicePath().string(), OfflineServiceOptions{"alice", "tk", nullopt},
            std::move(observers));
    }
    void postBurst(WorkerThread<OfflineServiceWorker>& worker, int operations) {
        for (int i = 0; i < operations; ++i) {
            worker.post(TaskPriority::Normal, &OfflineServiceWorker::markBusy);
        }
    }
};

TEST_F(IdleOnWorkerThread, StartUpAnnouncesInitializedThenIdle) {
    auto recorder = makeRecorder();
    auto worker = start({recorder});
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    worker.reset();
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle"));
}

TEST_F(IdleOnWorkerThread, ABurstQueuedDuringStartUpEndsInASingleIdle) {
    auto recorder = makeRecorder();
    recorder->pauseIn("onInitialized");
    auto worker = start({recorder});
    ASSERT_TRUE(recorder->waitFor("onInitialized"));  // the worker is held in its constructor
    postBurst(*worker, 10);
    recorder->resume();
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    worker.reset();
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle"));
}

TEST_F(IdleOnWorkerThread, ABurstAfterIdleEndsInExactlyOneMoreIdle) {
    auto recorder = makeRecorder();
    auto worker = start({recorder});
    ASSERT_TRUE(recorder->waitFor("onIdle"));

    // A late observer holds the worker in its replay while the burst is queued behind it.
    auto holder = makeRecorder();
    holder->pauseIn("onIdle");
    worker->post(TaskPriority::Normal, &OfflineServiceWorker::addObserver,
                 std::shared_ptr<OfflineServiceObserver>(holder));
    ASSERT_TRUE(holder->waitFor("onIdle"));
    postBurst(*worker, 10);
    holder->resume();
    ASSERT_TRUE(recorder->waitFor("onIdle", 2));
    worker.reset();

    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle", "onIdle"));
    EXPECT_THAT(holder->lines(), ElementsAre("onInitialized", "onIdle", "onIdle"));
}

TEST_F(IdleOnWorkerThread, ObserversAddedBeforeTheWorkerExistsAreAnnouncedOnce) {
    auto seeded = makeRecorder();
    seeded->pauseIn("onInitialized");
    auto worker = start({seeded});
    ASSERT_TRUE(seeded->waitFor("onInitialized"));
    auto late = makeRecorder();
    worker->post(TaskPriority::Normal, &OfflineServiceWorker::addObserver,
                 std::shared_ptr<OfflineServiceObserver>(late));
    worker->post(TaskPriority::Normal, &OfflineServiceWorker::addObserver,
                 std::shared_ptr<OfflineServiceObserver>(seeded));
    seeded->resume();
    ASSERT_TRUE(late->waitFor("onIdle"));
    worker.reset();
    // Added after initialisation but before the first idle check: no onIdle in its replay.
    EXPECT_THAT(late->lines(), ElementsAre("onInitialized", "onIdle"));
    EXPECT_THAT(seeded->lines(), ElementsAre("onInitialized", "onIdle"));
}

}  // namespace
}  // namespace terrane::common
