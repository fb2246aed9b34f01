#include "terrane/offline/offline_service.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "testing/recording_observer.hpp"

namespace terrane::common {
namespace {

using test::RecordingObserver;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        static std::atomic<unsigned> counter{0};
        path = std::filesystem::temp_directory_path() /
               ("terrane-offline-" + std::to_string(::getpid()) + "-" +
                std::to_string(std::random_device{}()) + "-" + std::to_string(counter++));
        std::filesystem::create_directories(path);
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::filesystem::path path;
};

// Facade tests run real services. The observer registry outlives them, so every test takes its
// observers out again, and every test releases its services before it ends.
class OfflineServiceTest : public ::testing::Test {
  protected:
    void TearDown() override {
        for (const auto& observer : registered) {
            OfflineService::unregisterObserver(observer);
        }
    }

    std::shared_ptr<RecordingObserver> registeredRecorder() {
        auto recorder = std::make_shared<RecordingObserver>();
        registerObserver(recorder);
        return recorder;
    }
    void registerObserver(const std::shared_ptr<OfflineServiceObserver>& observer) {
        registered.push_back(observer);
        OfflineService::registerObserver(observer);
    }
    std::string pathOf(const std::string& name) const { return (directory.path / name).string(); }
    std::shared_ptr<OfflineService> getInstance(const std::string& name = "service") {
        return OfflineService::getInstance(pathOf(name), options);
    }

    TemporaryDirectory directory;
    // A loopback endpoint that refuses connections: whatever a test asks of the network stays
    // on this machine.
    OfflineServiceOptions options{"alice", "tk", "http://127.0.0.1:9"};
    std::vector<std::shared_ptr<OfflineServiceObserver>> registered;
};

TEST_F(OfflineServiceTest, EveryoneSharesTheLiveServiceWhateverPathAndOptionsTheyGive) {
    auto first = getInstance("a");
    auto second =
        OfflineService::getInstance(pathOf("b"), {"bob", "other", "https://elsewhere.example"});
    EXPECT_EQ(first, second);
}

TEST_F(OfflineServiceTest, ReleasingTheLastHolderEndsTheServiceAndTheNextCallStartsAFreshOne) {
    auto recorder = registeredRecorder();
    auto first = getInstance("a");
    std::weak_ptr<OfflineService> firstWatch = first;
    auto alsoFirst = getInstance("a");
    first.reset();
    EXPECT_FALSE(firstWatch.expired());
    alsoFirst.reset();
    EXPECT_TRUE(firstWatch.expired());

    auto second = getInstance("b");
    second.reset();
    // Each service announced itself from its own start-up.
    EXPECT_THAT(recorder->lines(),
                ElementsAre("onInitialized", "onIdle", "onInitialized", "onIdle"));
}

TEST_F(OfflineServiceTest, AnObserverRegisteredWhileNoServiceLivesIsAttachedToTheNextOne) {
    auto recorder = registeredRecorder();
    EXPECT_THAT(recorder->lines(), IsEmpty());
    auto service = getInstance();
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    service.reset();
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle"));
}

TEST_F(OfflineServiceTest, RegisteringTheSameObserverTwiceAttachesItOnce) {
    auto service = getInstance();
    auto recorder = registeredRecorder();
    OfflineService::registerObserver(recorder);
    service.reset();
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle"));
}

TEST_F(OfflineServiceTest, UnregisteringAnUnknownObserverChangesNothing) {
    auto attached = registeredRecorder();
    auto stranger = std::make_shared<RecordingObserver>();
    OfflineService::unregisterObserver(stranger);
    auto service = getInstance();
    OfflineService::unregisterObserver(stranger);
    service.reset();
    EXPECT_THAT(attached->lines(), ElementsAre("onInitialized", "onIdle"));
    EXPECT_THAT(stranger->lines(), IsEmpty());
}

TEST_F(OfflineServiceTest, AnUnregisteredObserverIsLeftOutOfLaterServices) {
    auto recorder = registeredRecorder();
    auto service = getInstance();
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    OfflineService::unregisterObserver(recorder);
    service.reset();

    auto next = getInstance();
    next.reset();
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle"));
}

TEST_F(OfflineServiceTest, RegistrationsReachTheWorkerInTheOrderTheyWereMade) {
    auto recorder = registeredRecorder();
    auto service = getInstance();
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    // Removed, then added again: the worker forgets it first, so the addition replays the state.
    OfflineService::unregisterObserver(recorder);
    OfflineService::registerObserver(recorder);
    service.reset();
    EXPECT_THAT(recorder->lines(),
                ElementsAre("onInitialized", "onIdle", "onInitialized", "onIdle"));
}

TEST_F(OfflineServiceTest, ANullObserverIsNeitherKeptNorHandedToServices) {
    OfflineService::registerObserver(nullptr);
    auto recorder = registeredRecorder();
    auto service = getInstance();
    service.reset();
    OfflineService::unregisterObserver(nullptr);
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle"));
}

TEST_F(OfflineServiceTest, ThePlainEntryPointsRegisterAndUnregisterLikeTheStaticOperations) {
    auto recorder = std::make_shared<RecordingObserver>();
    registered.push_back(recorder);
    terrane_common_offline_service_register_observer(recorder);
    getInstance().reset();
    terrane_common_offline_service_unregister_observer(recorder);
    getInstance().reset();
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle"));
}

TEST_F(OfflineServiceTest, RequestsStillQueuedWhenTheServiceEndsReleaseWhatTheyHold) {
    auto token = std::make_shared<int>(0);
    std::weak_ptr<int> watch = token;
    auto service = getInstance();
    OfflineDataRegionMetadata region;
    region.id = "region-a";
    region.revision = 3;
    service->listAvailableRegions([token](auto) {});
    service->downloadPack(OfflineDataDomain::Maps, region);
    service->cancelPackDownload(OfflineDataDomain::Maps, region);
    service->deletePack(OfflineDataDomain::Navigation, region);
    token.reset();
    service.reset();
    EXPECT_TRUE(watch.expired());
}

TEST_F(OfflineServiceTest, ThePeerSlotStartsEmptyAndReleasesItsContentWithTheService) {
    static int released = 0;
    released = 0;
    auto service = getInstance();
    EXPECT_FALSE(service->peer);
    int wrapper = 0;
    service->peer.reset(&wrapper, [](void*) { ++released; });
    EXPECT_EQ(service->peer.get(), &wrapper);
    service.reset();
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
    constexpr int rounds = 100;
    auto bystander = std::make_shared<RecordingObserver>();
    registered.push_back(bystander);
    std::vector<std::shared_ptr<RecordingObserver>> observers;
    for (int t = 0; t < threadCount; ++t) {
        observers.push_back(std::make_shared<ReentrantObserver>(bystander));
        registered.push_back(observers.back());
    }

    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([this, t, observer = observers[t]] {
            for (int round = 0; round < rounds; ++round) {
                auto service = OfflineService::getInstance(pathOf(std::to_string(t)), options);
                OfflineService::registerObserver(observer);
                service->listAvailableRegions({});
                OfflineService::unregisterObserver(observer);
                // Often the last holder: the service ends here, on this thread.
                service.reset();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    // Every registration was undone: a new service announces itself to a newcomer only.
    std::vector<std::size_t> heard;
    for (const auto& observer : observers) {
        heard.push_back(observer->lines().size());
    }
    auto newcomer = registeredRecorder();
    getInstance().reset();
    EXPECT_THAT(newcomer->lines(), ElementsAre("onInitialized", "onIdle"));
    for (int t = 0; t < threadCount; ++t) {
        EXPECT_EQ(observers[t]->lines().size(), heard[t]);
    }
}

}  // namespace
}  // namespace terrane::common
