#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/linux/curl_test_support.hpp"
#include "terrane/reachability/reachability_factory.hpp"
#include "util/file_descriptor.hpp"

// Reachability against the real kernel, each test in a network namespace of its own with one
// test link "x0" (a dummy link, or a veth pair where the kernel has no dummy driver).
namespace terrane::common {
namespace {

bool shell(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// Unshares the network namespace for the calling thread: directly when privileged, else inside a
// fresh user namespace that maps the caller to root there (which the kernel allows only in a
// single-threaded process). False when neither is allowed.
bool enterFreshNetworkNamespace() {
    const std::string uid = std::to_string(::geteuid());
    const std::string gid = std::to_string(::getegid());
    if (::unshare(CLONE_NEWNET) == 0) {
        return true;
    }
    return ::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 &&
           static_cast<bool>(std::ofstream("/proc/self/setgroups") << "deny" << std::flush) &&
           static_cast<bool>(std::ofstream("/proc/self/uid_map")
                             << "0 " + uid + " 1" << std::flush) &&
           static_cast<bool>(std::ofstream("/proc/self/gid_map")
                             << "0 " + gid + " 1" << std::flush);
}

using Heard = test::Inbox<NetworkStatus>;

// Waits until the latest call reports `status`; throws when the guard runs out.
void awaitLatest(Heard& heard, NetworkStatus status) {
    heard.waitUntil([status](const auto& all) { return !all.empty() && all.back() == status; });
}

class NetlinkReachabilityTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // Keeps a NetworkManager of the machine out of the answers; its hint has a test of its own.
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/terrane-test-bus", 1);
    }

    void SetUp() override {
        original_ = base::io::FileDescriptor(::open("/proc/thread-self/ns/net", O_RDONLY));
        if (!enterFreshNetworkNamespace()) {
            GTEST_SKIP() << "no network namespace allowed here: " << std::strerror(errno);
        }
        if (!shell("ip link set lo up")) {
            GTEST_SKIP() << "the ip tool cannot configure this namespace";
        }
        if (shell("ip link add x0 type dummy")) {
            carrierOff_ = "ip link set x0 carrier off";
            carrierOn_ = "ip link set x0 carrier on";
        } else if (shell("ip link add x0 type veth peer name x1 && ip link set x1 up")) {
            carrierOff_ = "ip link set x1 down";
            carrierOn_ = "ip link set x1 up";
        } else {
            GTEST_SKIP() << "neither dummy nor veth links can be made here";
        }
    }

    void TearDown() override {
        if (original_) {
            ::setns(original_.get(), CLONE_NEWNET);
        }
    }

    static std::shared_ptr<ReachabilityInterface> startService(const optional<std::string>& host,
                                                               Heard& heard) {
        auto service = ReachabilityFactory::reachability(host);
        service->addListener(
            [call = heard.callback()](NetworkStatus status) mutable { call(std::move(status)); });
        service->start();
        return service;
    }

    std::string carrierOff_;
    std::string carrierOn_;

  private:
    base::io::FileDescriptor original_;
};

// The same change reaches the service of a host too, on its own listeners.
TEST_F(NetlinkReachabilityTest, EveryChangeOfTheRoutesReachesTheListeners) {
    Heard heard;
    Heard v4;
    auto service = startService(nullopt, heard);
    ASSERT_EQ(heard.items().size(), 1u) << "start() calls the listener once";
    auto v4Service = startService(std::string("192.0.2.1"), v4);
    awaitLatest(heard, NetworkStatus::NotReachable);  // only loopback
    awaitLatest(v4, NetworkStatus::NotReachable);

    const struct {
        std::string change;
        NetworkStatus status;
    } steps[] = {
        {"ip link set x0 up && ip route add default dev x0", NetworkStatus::ReachableViaWiFi},
        {carrierOff_, NetworkStatus::NotReachable},
        {carrierOn_, NetworkStatus::ReachableViaWiFi},
        {"ip link set x0 down", NetworkStatus::NotReachable},
        {"ip link set x0 name wwan0 && ip link set wwan0 up && ip route add default dev wwan0",
         NetworkStatus::ReachableViaWAN},
        {"ip route del default", NetworkStatus::NotReachable},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.change);
        ASSERT_TRUE(shell(step.change));
        awaitLatest(heard, step.status);
        awaitLatest(v4, step.status);
        EXPECT_EQ(service->currentNetworkStatus(), step.status);
    }
}

// Runs after the test above in a namespace of its own: the monitor must have stopped with the
// services above and start afresh here, not keep watching the namespace they lived in.
TEST_F(NetlinkReachabilityTest, AServiceStartedAfterOthersStoppedWatchesItsOwnNamespace) {
    Heard heard;
    auto service = startService(nullopt, heard);
    ASSERT_TRUE(shell("ip link set x0 up && ip route add default dev x0"));
    awaitLatest(heard, NetworkStatus::ReachableViaWiFi);
}

}  // namespace
}  // namespace terrane::common
