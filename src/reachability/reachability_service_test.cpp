#include "reachability/reachability_service.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "reachability/reachability_flags.hpp"
#include "testing/scripted_reachability_handle.hpp"

namespace terrane::common {
namespace {

using namespace reachability_flag;

TEST(ReachabilityFlagsTest, StatusFollowsTheRulesInOrder) {
    using enum NetworkStatus;
    const std::vector<std::pair<ReachabilityFlags, NetworkStatus>> rows{
        {0, NotReachable},
        {IsWWAN | ConnectionOnDemand, NotReachable},
        {Reachable, ReachableViaWiFi},
        {Reachable | IsWWAN, ReachableViaWAN},
        {Reachable | IsWWAN | ConnectionRequired | InterventionRequired, ReachableViaWAN},
        {Reachable | ConnectionRequired, NotReachable},
        {Reachable | ConnectionRequired | ConnectionOnDemand, ReachableViaWiFi},
        {Reachable | ConnectionRequired | ConnectionOnTraffic, ReachableViaWiFi},
        {Reachable | ConnectionRequired | ConnectionOnDemand | InterventionRequired, NotReachable},
    };
    for (const auto& [flags, status] : rows) {
        EXPECT_EQ(networkStatusForFlags(flags), status) << std::hex << flags;
    }
}

class ReachabilityServiceTest : public ::testing::Test {
  protected:
    std::unique_ptr<ReachabilityService> makeService(ReachabilityFlags flags) {
        return std::make_unique<ReachabilityService>(
            std::make_unique<test::ScriptedReachabilityHandle>(flags), center_);
    }

    ReachabilityNotificationCenter center_;
};

TEST_F(ReachabilityServiceTest, StartAndEachPostCallTheListenersOfStartedServicesInOrder) {
    using enum NetworkStatus;
    using Calls = std::vector<std::pair<int, NetworkStatus>>;
    auto wan = makeService(Reachable | IsWWAN);
    auto none = makeService(0);
    Calls heard;
    wan->addListener([&](NetworkStatus status) { heard.emplace_back(1, status); });
    wan->addListener([&](NetworkStatus status) { heard.emplace_back(2, status); });
    none->addListener([&](NetworkStatus status) { heard.emplace_back(3, status); });
    EXPECT_TRUE(wan->isReachable());
    EXPECT_FALSE(none->isReachable());

    wan->start();
    none->start();
    const Calls everyListener{{1, ReachableViaWAN}, {2, ReachableViaWAN}, {3, NotReachable}};
    ASSERT_EQ(heard, everyListener);
    center_.post();
    ASSERT_EQ(Calls(heard.begin() + 3, heard.end()), everyListener);
    wan->stop();
    center_.post();
    EXPECT_EQ(Calls(heard.begin() + 6, heard.end()), (Calls{{3, NotReachable}}));
}

TEST_F(ReachabilityServiceTest, NoListenerRunsOnceTheDestructorHasReturned) {
    auto service = makeService(Reachable);
    std::atomic<bool> destroyed{false};
    std::atomic<int> calls{0};
    service->addListener([&](NetworkStatus) {
        // Linger inside the call, so that the destructor usually meets a call under way.
        for (int i = 0; i < 100; ++i) {
            std::this_thread::yield();
        }
        EXPECT_FALSE(destroyed.load());
        calls.fetch_add(1);
    });
    service->start();
    // Stopped and joined when the test ends.
    std::jthread poster([this](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            center_.post();
        }
    });
    while (calls.load() < 3) {
        std::this_thread::yield();
    }
    service.reset();
    destroyed.store(true);
}

}  // namespace
}  // namespace terrane::common
