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

OfflineDataPack packIn(OfflineDataPackStatus status) {
    return {status, nullopt, "/x", 10};
}

// Workers driven directly on the test thread. Their proxy has no queue, so what they post to
// themselves (the idle checks) is dropped; the tests call those members themselves.
class ObserverTest : public ::testing::Test {
  protected:
    std::unique_ptr<OfflineServiceWorker> makeWorker(OfflineServiceObservers observers) {
        return std::make_unique<OfflineServiceWorker>(
            Proxy<OfflineServiceWorker>(), directory.path().string(),
            OfflineServiceOptions{"alice", "tk", nullopt}, std::move(observers));
    }
    // Three observers in the worker's (address) order.
    std::vector<std::shared_ptr<RecordingObserver>> trio() {
        std::vector<std::shared_ptr<RecordingObserver>> all{std::make_shared<RecordingObserver>(),
                                                            std::make_shared<RecordingObserver>(),
                                                            std::make_shared<RecordingObserver>()};
        std::sort(all.begin(), all.end());
        return all;
    }

    test::TemporaryDirectory directory;
    OfflineDataRegionMetadata region = test::sampleRegion("region-a", 3);
};

TEST_F(ObserverTest, EachPackStatusReachesItsOwnCallback) {
    auto recorder = std::make_shared<RecordingObserver>();
    auto worker = makeWorker({recorder});
    for (auto status : {OfflineDataPackStatus::Pending, OfflineDataPackStatus::Downloading,
                        OfflineDataPackStatus::Incomplete, OfflineDataPackStatus::Verifying,
                        OfflineDataPackStatus::Available, OfflineDataPackStatus::Expired,
                        OfflineDataPackStatus::Deleted}) {
        worker->notifyPack(OfflineDataDomain::Maps, region, packIn(status));
    }
    worker->notifyPack(OfflineDataDomain::Navigation, region,
                       {OfflineDataPackStatus::Errored,
                        OfflineDataError{OfflineDataErrorCode::NotFound, "gone"}, "", 0});
    EXPECT_THAT(
        recorder->lines(),
        ElementsAre("onInitialized", "onPending maps region-a/3 path=/x bytes=10",
                    "onDownloading maps region-a/3 path=/x bytes=10",
                    "onIncomplete maps region-a/3 path=/x bytes=10",
                    "onVerifying maps region-a/3 path=/x bytes=10",
                    "onAvailable maps region-a/3 path=/x bytes=10",
                    "onExpired maps region-a/3 path=/x bytes=10", "onDeleted maps region-a/3",
                    "onErrored navigation region-a/3 path= bytes=0 error=NotFound, "
                    "message=gone"));
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Deleting without its acknowledgement would leave the deletion waiting forever.
    EXPECT_DEATH(
        OfflineServiceWorker::notifyPackObserver(*recorder, OfflineDataDomain::Maps, region,
                                                 packIn(OfflineDataPackStatus::Deleting)),
        "");
}

TEST_F(ObserverTest, AThrowingObserverBecomesALogMessageAndTheOthersStillHear) {
    const auto observers = trio();
    observers[1]->throwFrom("onAvailable", "boom");
    observers[1]->throwFrom("onPending", "not an std::exception", false);
    observers[1]->throwFrom("onLogMessage", "again");
    observers[0]->throwFrom("onLogMessage", "too");
    auto worker = makeWorker({observers.begin(), observers.end()});
    worker->notifyPack(OfflineDataDomain::Maps, region, packIn(OfflineDataPackStatus::Available));
    worker->notifyPack(OfflineDataDomain::Maps, region, packIn(OfflineDataPackStatus::Pending));
    EXPECT_THAT(observers[2]->lines(),
                ElementsAre("onInitialized", "onLogMessage Uncaught exception in observer: boom",
                            "onAvailable maps region-a/3 path=/x bytes=10",
                            "onLogMessage Uncaught exception in observer",
                            "onPending maps region-a/3 path=/x bytes=10"));
}

TEST_F(ObserverTest, LogMessagesAreFormattedPrintfStyleForEveryObserver) {
    auto first = std::make_shared<RecordingObserver>();
    auto second = std::make_shared<RecordingObserver>();
    auto worker = makeWorker({first, second});
    const std::string longText(5000, 'x');
    worker->logMessage("%u:%s", 42u, longText.c_str());
    worker->logMessage("%s", "");
    for (const auto& observer : {first, second}) {
        EXPECT_THAT(observer->lines(),
                    ElementsAre("onInitialized", "onLogMessage 42:" + longText, "onLogMessage "));
    }
}

TEST_F(ObserverTest, RegistrationAndTheIdleReportOncePerBusyPeriod) {
    auto staying = std::make_shared<RecordingObserver>();
    auto leaving = std::make_shared<RecordingObserver>();
    auto worker = makeWorker({staying, leaving});
    worker->addObserver(staying);  // already there: told nothing
    worker->addObserver(nullptr);
    worker->removeObserver(nullptr);
    worker->removeObserver(leaving);
    worker->sendIdleNotification();
    worker->sendIdleNotification();
    auto late = std::make_shared<RecordingObserver>();
    worker->addObserver(late);  // told the state: initialised and idle
    worker->markBusy();
    auto busy = std::make_shared<RecordingObserver>();
    worker->addObserver(busy);
    worker->sendIdleNotification();
    EXPECT_THAT(leaving->lines(), ElementsAre("onInitialized"));
    EXPECT_THAT(staying->lines(), ElementsAre("onInitialized", "onIdle", "onIdle"));
    EXPECT_THAT(late->lines(), ElementsAre("onInitialized", "onIdle", "onIdle"));
    EXPECT_THAT(busy->lines(), ElementsAre("onInitialized", "onIdle"));
}

TEST_F(ObserverTest, OnTheWorkerThreadABurstQueuedDuringStartUpOrAfterIdleEndsInOneIdle) {
    auto recorder = std::make_shared<RecordingObserver>();
    recorder->pauseIn("onInitialized");
    auto worker = std::make_unique<WorkerThread<OfflineServiceWorker>>(
        directory.path().string(), OfflineServiceOptions{"alice", "tk", nullopt},
        OfflineServiceObservers{recorder});
    const auto burst = [&] {
        for (int i = 0; i < 10; ++i) {
            worker->post(TaskPriority::Normal, &OfflineServiceWorker::markBusy);
        }
    };
    ASSERT_TRUE(recorder->waitFor("onInitialized"));  // held in the constructor
    burst();
    recorder->resume();
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    // A late observer holds the worker in its replay while the next burst is queued.
    auto holder = std::make_shared<RecordingObserver>();
    holder->pauseIn("onIdle");
    worker->post(TaskPriority::Normal, &OfflineServiceWorker::addObserver,
                 std::shared_ptr<OfflineServiceObserver>(holder));
    ASSERT_TRUE(holder->waitFor("onIdle"));
    burst();
    holder->resume();
    ASSERT_TRUE(recorder->waitFor("onIdle", 2));
    worker.reset();
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle", "onIdle"));
}

}  // namespace
}  // namespace terrane::common
