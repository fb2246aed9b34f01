#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

bool shell(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

using ToolNetworkTest = ToolTest;

TEST_F(ToolNetworkTest, OneAnswerExitsByTheStatusAndWatchPrintsALinePerChangeUntilCtrlC) {
    // The test moves to a fresh network namespace with only loopback up, and back at its end; a
    // NetworkManager of the machine is kept out of the tool's answers.
    const int original = ::open("/proc/thread-self/ns/net", O_RDONLY);
    const std::shared_ptr<void> back(nullptr, [original](void*) {
        ::setns(original, CLONE_NEWNET);
        ::close(original);
    });
    if (::unshare(CLONE_NEWNET) != 0 || !shell("ip link set lo up")) {
        GTEST_SKIP() << "no network namespace allowed here";
    }
    environment_ = {"DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent/terrane-test-bus"};
    const Child up = run({"network", "127.0.0.1"});
    EXPECT_EQ(std::tuple(up->status(), up->out(), up->err()),
              std::tuple(0, "127.0.0.1: WiFi\n", ""));
    const Child down = run({"network", "192.0.2.1"});
    EXPECT_EQ(std::tuple(down->status(), down->out(), down->err()),
              std::tuple(1, "192.0.2.1: not reachable\n",
                         "terrane-offline: 192.0.2.1 cannot be reached\n"));

    if (!shell("ip link add x0 type dummy") &&
        !shell("ip link add x0 type veth peer name x1 && ip link set x1 up")) {
        GTEST_SKIP() << "neither dummy nor veth links can be made here";
    }
    const auto watch = start({"network", "--watch"});
    std::string expected = "network: not reachable\n";
    EXPECT_TRUE(eventually([&] { return watch->out() == expected; }, 10s)) << watch->out();
    for (const auto& [change, line] : {
             std::pair{"ip link set x0 up && ip route add default dev x0", "network: WiFi\n"},
             std::pair{"ip route del default", "network: not reachable\n"},
         }) {
        ASSERT_TRUE(shell(change)) << change;
        expected += line;
        EXPECT_TRUE(eventually([&] { return watch->out() == expected; }, 10s)) << watch->out();
    }
    watch->signal(SIGINT);
    EXPECT_EQ(watch->wait(10s), 0);
    EXPECT_EQ(watch->out(), expected);
}

}  // namespace
}  // namespace terrane::tool::test
