#include "terrane/offline/offline_service.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "testing/recording_observer.hpp"
#include "testing/storage_tree.hpp"

namespace terrane::common {
namespace {

using test::RecordingObserver;
using ::testing::ElementsAre;

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
    auto service = getInstance("a");
    std::weak_ptr<OfflineService> watch = service;
    auto second = OfflineService::getInstance((directory.path() / "b").string(),
                                              {"bob", "other", "https://elsewhere.example"});
    EXPECT_EQ(service, second);
    second.reset();
    OfflineService::registerObserver(recorder);  // again: attached once
    OfflineService::unregisterObserver(stranger);
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
}

}  // namespace
}  // namespace terrane::common
