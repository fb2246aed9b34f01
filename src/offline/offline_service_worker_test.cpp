#include "offline/offline_service_worker.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "terrane/offline/offline_data.hpp"
#include "terrane/offline/offline_service_observer.hpp"
#include "testing/recording_observer.hpp"
#include "testing/storage_tree.hpp"

namespace terrane::common {
namespace {

using test::RecordingObserver;
using ::testing::ElementsAre;

// Workers driven directly on the test thread. Their proxy has no queue, so what they post to
// themselves (the idle checks) is dropped; the tests call those members themselves. The
// mapping of each status to its callback is shown by the download, lease and deletion tests.
class ObserverTest : public ::testing::Test {
  protected:
    std::unique_ptr<OfflineServiceWorker> makeWorker(OfflineServiceObservers observers) {
        return std::make_unique<OfflineServiceWorker>(
            Proxy<OfflineServiceWorker>(), directory.path().string(),
            OfflineServiceOptions{"alice", "tk", nullopt}, std::move(observers));
    }

    test::TemporaryDirectory directory;
    OfflineDataRegionMetadata region = test::sampleRegion("region-a", 3);
    const OfflineDataPack available{OfflineDataPackStatus::Available, nullopt, "/x", 10};
};

TEST_F(ObserverTest, AThrowingObserverBecomesALogMessageAndTheOthersStillHear) {
    std::vector<std::shared_ptr<RecordingObserver>> observers(3);
    std::ranges::generate(observers, std::make_shared<RecordingObserver>);
    std::ranges::sort(observers);  // the worker's (address) order
    observers[1]->throwFrom("onAvailable", "boom");
    observers[1]->throwFrom("onPending", "not an std::exception", false);
    observers[1]->throwFrom("onLogMessage", "again");
    observers[0]->throwFrom("onLogMessage", "too");
    auto worker = makeWorker({observers.begin(), observers.end()});
    worker->notifyPack(OfflineDataDomain::Maps, region, available);
    auto pending = available;
    pending.status = OfflineDataPackStatus::Pending;
    worker->notifyPack(OfflineDataDomain::Maps, region, pending);
    const std::string longText(5000, 'x');
    worker->logMessage("%u:%s", 42u, longText.c_str());
    worker->logMessage("%s", "");
    EXPECT_THAT(observers[2]->lines(),
                ElementsAre("onInitialized", "onLogMessage Uncaught exception in observer: boom",
                            "onAvailable maps region-a/3 path=/x bytes=10",
                            "onLogMessage Uncaught exception in observer",
                            "onPending maps region-a/3 path=/x bytes=10",
                            "onLogMessage 42:" + longText, "onLogMessage "));
}

TEST_F(ObserverTest, RegistrationAndTheIdleReportOncePerBusyPeriod) {
    auto staying = std::make_shared<RecordingObserver>();
    auto leaving = std::make_shared<RecordingObserver>();
    auto worker = makeWorker({staying, leaving});
    worker->addObserver(staying);  // already there: told nothing
    worker->addObserver(nullptr);
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

}  // namespace
}  // namespace terrane::common
