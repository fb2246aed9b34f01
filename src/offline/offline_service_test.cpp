#include "terrane/offline/offline_service.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "testing/recording_observer.hpp"
#include "testing/storage_tree.hpp"

namespace terrane::common {
namespace {

using test::RecordingObserver;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Facade tests run real services. The observer registry outlives them, so every test takes its
// observers out again, and releases its services before it ends.
class OfflineServiceTest : public ::testing::Test {
  protected:
    void TearDown() override {
        for (const auto& observer : registered) {
            OfflineService::unregisterObserver(observer);
        }
    }
    std::shared_ptr<RecordingObserver> registeredRecorder() {
        auto recorder = std::make_shared<RecordingObserver>();
        registered.push_back(recorder);
        OfflineService::registerObserver(recorder);
        return recorder;
    }
    std::shared_ptr<OfflineService> getInstance(const std::string& name = "service") {
        return OfflineService::getInstance((directory.path() / name).string(), options);
    }

    test::TemporaryDirectory directory;
    // A loopback endpoint that refuses connections: nothing leaves this machine.
    OfflineServiceOptions options{"alice", "tk", "http://127.0.0.1:9"};
    std::vector<std::shared_ptr<OfflineServiceObserver>> registered;
};

TEST_F(OfflineServiceTest, EveryoneSharesTheLiveServiceUntilTheLastHolderLetsGo) {
    auto recorder = registeredRecorder();
    auto first = getInstance("a");
    std::weak_ptr<OfflineService> watch = first;
    auto second = OfflineService::getInstance((directory.path() / "b").string(),
                                              {"bob", "other", "https://elsewhere.example"});
    EXPECT_EQ(first, second);
    first.reset();
    EXPECT_FALSE(watch.expired());
    second.reset();
    EXPECT_TRUE(watch.expired());
    getInstance("b").reset();
    // Each service announced itself from its own start-up.
    EXPECT_THAT(recorder->lines(),
                ElementsAre("onInitialized", "onIdle", "onInitialized", "onIdle"));
}

TEST_F(OfflineServiceTest, TheRegistryKeepsEachObserverOnceAndInTheOrderOfTheCalls) {
    OfflineService::registerObserver(nullptr);
    auto recorder = registeredRecorder();
    auto stranger = std::make_shared<RecordingObserver>();
    OfflineService::unregisterObserver(stranger);
    auto service = getInstance();
    OfflineService::registerObserver(recorder);  // again: attached once
    OfflineService::unregisterObserver(stranger);
    OfflineService::unregisterObserver(nullptr);
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    // Removed, then added again: the worker forgets it first, so the addition replays the state.
    OfflineService::unregisterObserver(recorder);
    terrane_common_offline_service_register_observer(recorder);
    service.reset();
    terrane_common_offline_service_unregister_observer(recorder);
    getInstance().reset();  // an unregistered observer is left out of later services
    EXPECT_THAT(recorder->lines(),
                ElementsAre("onInitialized", "onIdle", "onInitialized", "onIdle"));
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

// An observer whose callbacks use the registry from the worker thread, as an application's may.
class ReentrantObserver : public RecordingObserver {
  public:
    explicit ReentrantObserver(std::shared_ptr<OfflineServiceObserver> other_)
        : other(std::move(other_)) {}
    void onInitialized() override {
        RecordingObserver::onInitialized();
        OfflineService::registerObserver(other);
        OfflineService::unregisterObserver(other);
    }

  private:
    std::shared_ptr<OfflineServiceObserver> other;
};

TEST_F(OfflineServiceTest, TheRegistryCanBeUsedFromManyThreadsAtOnce) {
    constexpr int threadCount = 4;
    auto bystander = std::make_shared<RecordingObserver>();
    registered.push_back(bystander);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        auto observer = std::make_shared<ReentrantObserver>(bystander);
        registered.push_back(observer);
        threads.emplace_back([this, t, observer] {
            for (int round = 0; round < 100; ++round) {
                auto service = getInstance(std::to_string(t));
                OfflineService::registerObserver(observer);
                service->listAvailableRegions({});
                OfflineService::unregisterObserver(observer);
                service.reset();  // often the last holder: the service ends on this thread
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    // Every registration was undone: a new service announces itself to a newcomer only.
    auto newcomer = registeredRecorder();
    getInstance().reset();
    EXPECT_THAT(newcomer->lines(), ElementsAre("onInitialized", "onIdle"));
}

}  // namespace
}  // namespace terrane::common
