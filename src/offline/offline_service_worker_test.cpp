#include "offline/offline_service_worker.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "terrane/offline/offline_data.hpp"
#include "terrane/offline/offline_service.hpp"
#include "terrane/offline/offline_service_observer.hpp"
#include "testing/recording_observer.hpp"
#include "testing/storage_tree.hpp"

namespace terrane::common {
namespace {

using test::RecordingObserver;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

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
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Deleting without its acknowledgement would leave the deletion waiting forever.
    pending.status = OfflineDataPackStatus::Deleting;
    EXPECT_DEATH(OfflineServiceWorker::notifyPackObserver(*observers[2], OfflineDataDomain::Maps,
                                                          region, pending),
                 "");
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

template <typename T>
std::string printed(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

// Domain names and formats are shown by the catalogue tests, errors by every message test.
TEST(OfflineData, TextFormsForMessages) {
    const std::string codes[] = {
        "Unknown", "NotFound",        "Unauthorized", "RateLimited", "Connection",
        "Server",  "InvalidResponse", "Corrupt",      "Filesystem",  "<unknown error code>"};
    for (std::uint32_t code = 0; code < std::size(codes); ++code) {
        EXPECT_EQ(printed(static_cast<OfflineDataErrorCode>(code)), codes[code]);
    }
    EXPECT_EQ(printed(OfflineDataDomain::Maps) + printed(OfflineDataDomain::Navigation) +
                  printed(static_cast<OfflineDataDomain>(2)),
              "MapsNavigation<unknown domain>");
    EXPECT_EQ(printed(OfflineDataPackMetadata{"u", "0cc175b9", 1, 1, ""}), "0cc175b9");
    EXPECT_EQ(expectedFormat(static_cast<OfflineDataDomain>(2)), 0u);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(toString(static_cast<OfflineDataDomain>(2)), "");
}

TEST(OfflineData, AnObserverThatOpensNoFilesAcknowledgesADeletionAtOnce) {
    class Quiet : public OfflineServiceObserver {};
    Quiet observer;
    int acknowledgements = 0;
    observer.onDeleting(OfflineDataDomain::Maps, {}, {}, [&] { ++acknowledgements; });
    observer.onDeleting(OfflineDataDomain::Maps, {}, {}, {});  // an empty one is tolerated
    EXPECT_EQ(acknowledgements, 1);
}

// Facade tests run real services over a loopback endpoint that refuses connections. The
// observer registry outlives them, so every test takes its observers out again, and releases its
// services before it ends.
class OfflineServiceTest : public ::testing::Test {
  protected:
    std::shared_ptr<OfflineService> getInstance(const std::string& name = "service") {
        return OfflineService::getInstance((directory.path() / name).string(),
                                           {"alice", "tk", "http://127.0.0.1:9"});
    }

    test::TemporaryDirectory directory;
};

TEST_F(OfflineServiceTest, EveryoneSharesTheLiveServiceAndTheRegistryKeepsEachObserverOnce) {
    OfflineService::registerObserver(nullptr);
    auto recorder = std::make_shared<RecordingObserver>();
    OfflineService::registerObserver(recorder);
    auto stranger = std::make_shared<RecordingObserver>();
    OfflineService::unregisterObserver(stranger);
    auto service = getInstance("a");
    std::weak_ptr<OfflineService> watch = service;
    auto second = OfflineService::getInstance((directory.path() / "b").string(),
                                              {"bob", "other", "https://elsewhere.example"});
    EXPECT_EQ(service, second);
    second.reset();
    EXPECT_FALSE(watch.expired());
    OfflineService::registerObserver(recorder);  // again: attached once
    OfflineService::unregisterObserver(stranger);
    OfflineService::unregisterObserver(nullptr);
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    // Removed, then added again: the worker forgets it first, so the addition replays the state.
    OfflineService::unregisterObserver(recorder);
    terrane_common_offline_service_register_observer(recorder);
    service.reset();
    EXPECT_TRUE(watch.expired());
    getInstance("b").reset();  // a new service announces itself from its own start-up
    terrane_common_offline_service_unregister_observer(recorder);
    getInstance().reset();  // an unregistered observer is left out of later services
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle", "onInitialized", "onIdle",
                                               "onInitialized", "onIdle"));
    EXPECT_THAT(stranger->lines(), IsEmpty());
}

TEST_F(OfflineServiceTest, RequestsStillQueuedWhenTheServiceEndsReleaseWhatTheyHold) {
    auto token = std::make_shared<int>(0);
    std::weak_ptr<int> watch = token;
    auto service = getInstance();
    const auto region = test::sampleRegion("region-a", 3);
    service->listAvailableRegions([token](auto) {});
    service->downloadPack(OfflineDataDomain::Maps, region);
    service->cancelPackDownload(OfflineDataDomain::Maps, region);
    service->deletePack(OfflineDataDomain::Navigation, region);
    token.reset();
    int released = 0;
    service->peer.reset(&released, [](void* count) { ++*static_cast<int*>(count); });
    service.reset();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(released, 1);
}

}  // namespace
}  // namespace terrane::common
