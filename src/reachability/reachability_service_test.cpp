#include "reachability/reachability_service.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "reachability/reachability_flags.hpp"

namespace terrane::common {
namespace {

using namespace reachability_flag;

TEST(ReachabilityFlagsTest, StatusFollowsTheRulesInOrder) {
    const struct {
        ReachabilityFlags flags;
        NetworkStatus status;
        const char* text;
    } rows[] = {
        {0, NetworkStatus::NotReachable, "not reachable"},
        {IsWWAN | ConnectionOnDemand, NetworkStatus::NotReachable, "not reachable"},
        {Reachable, NetworkStatus::ReachableViaWiFi, "WiFi"},
        {Reachable | IsWWAN, NetworkStatus::ReachableViaWAN, "WAN"},
        {Reachable | IsWWAN | ConnectionRequired | InterventionRequired,
         NetworkStatus::ReachableViaWAN, "WAN"},
        {Reachable | ConnectionRequired, NetworkStatus::NotReachable, "not reachable"},
        {Reachable | ConnectionRequired | ConnectionOnDemand, NetworkStatus::ReachableViaWiFi,
         "WiFi"},
        {Reachable | ConnectionRequired | ConnectionOnTraffic, NetworkStatus::ReachableViaWiFi,
         "WiFi"},
        {Reachable | ConnectionRequired | ConnectionOnDemand | InterventionRequired,
         NetworkStatus::NotReachable, "not reachable"},
        {Reachable | InterventionRequired, NetworkStatus::ReachableViaWiFi, "WiFi"},
    };
    for (const auto& row : rows) {
        const NetworkStatus status = networkStatusForFlags(row.flags);
        EXPECT_EQ(status, row.status) << std::hex << row.flags;
        EXPECT_EQ(toString(status), row.text) << std::hex << row.flags;
    }
}

// Answers flags set by the test; counts notifier starts.
class FakeHandle : public ReachabilityHandle {
  public:
    explicit FakeHandle(std::shared_ptr<std::atomic<ReachabilityFlags>> flags)
        : flags_(std::move(flags)) {}
    optional<ReachabilityFlags> flags() override { return flags_->load(); }
    bool startNotifier() override { return true; }
    void stopNotifier() override {}

  private:
    std::shared_ptr<std::atomic<ReachabilityFlags>> flags_;
};

class ReachabilityServiceTest : public ::testing::Test {
  protected:
    std::unique_ptr<ReachabilityService> makeService(ReachabilityFlags flags) {
        auto cell = std::make_shared<std::atomic<ReachabilityFlags>>(flags);
        cells_.push_back(cell);
        return std::make_unique<ReachabilityService>(std::make_unique<FakeHandle>(cell), center_);
    }

    ReachabilityNotificationCenter center_;
    std::vector<std::shared_ptr<std::atomic<ReachabilityFlags>>> cells_;
};

TEST_F(ReachabilityServiceTest, StartCallsEachListenerOnceInOrderAndAddingDoesNot) {
    auto service = makeService(Reachable | IsWWAN);
    std::vector<std::pair<int, NetworkStatus>> calls;
    service->addListener([&](NetworkStatus status) { calls.emplace_back(1, status); });
    service->addListener([&](NetworkStatus status) { calls.emplace_back(2, status); });
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(service->isReachable());

    service->start();
    EXPECT_EQ(calls,
              (std::vector<std::pair<int, NetworkStatus>>{{1, NetworkStatus::ReachableViaWAN},
                                                          {2, NetworkStatus::ReachableViaWAN}}));
}

TEST_F(ReachabilityServiceTest, OnePostReachesEveryStartedServiceWithItsOwnStatus) {
    auto wifi = makeService(Reachable);
    auto none = makeService(0);
    auto stopped = makeService(Reachable);
    std::vector<NetworkStatus> heard;
    for (auto* service : {wifi.get(), none.get(), stopped.get()}) {
        service->addListener([&](NetworkStatus status) { heard.push_back(status); });
    }
    wifi->start();
    none->start();
    heard.clear();

    center_.post();
    EXPECT_EQ(heard, (std::vector{NetworkStatus::ReachableViaWiFi, NetworkStatus::NotReachable}));
    wifi->stop();
    center_.post();
    EXPECT_EQ(heard.size(), 3u);
}

TEST_F(ReachabilityServiceTest, EmptyListenerRaisesBadFunctionCall) {
    auto service = makeService(Reachable);
    service->addListener({});
    EXPECT_THROW(service->start(), std::bad_function_call);
}

TEST_F(ReachabilityServiceTest, NoListenerRunsOnceTheDestructorHasReturned) {
    auto service = makeService(Reachable);
    std::atomic<bool> destroyed{false};
    std::atomic<int> calls{0};
    std::atomic<int> lateCalls{0};
    service->addListener([&](NetworkStatus) {
        calls.fetch_add(1);
        // Linger inside the call, so that the destructor usually meets a call under way.
        for (int i = 0; i < 100; ++i) {
            std::this_thread::yield();
        }
        if (destroyed.load()) {
            lateCalls.fetch_add(1);
        }
    });
    service->start();
    calls.store(0);

    std::atomic<bool> posting{true};
    std::atomic<int> postsAfterDestruction{0};
    std::thread monitor([&] {
        while (posting.load()) {
            center_.post();
            if (destroyed.load()) {
                postsAfterDestruction.fetch_add(1);
            }
        }
    });
    while (calls.load() < 3) {
        std::this_thread::yield();
    }
    service.reset();
    destroyed.store(true);
    while (postsAfterDestruction.load() < 3) {
        std::this_thread::yield();
    }
    posting.store(false);
    monitor.join();
    EXPECT_EQ(lateCalls.load(), 0);
}

}  // namespace
}  // namespace terrane::common
