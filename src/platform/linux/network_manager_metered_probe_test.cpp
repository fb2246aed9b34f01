#include "platform/linux/network_manager_metered_probe.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>

#include "testing/storage_tree.hpp"

namespace terrane::common {
namespace {

// A private message bus: dbus-daemon with the session configuration on a socket in a scratch
// directory. It prints its pid only once it listens; the object stops it on destruction.
class PrivateBus {
  public:
    PrivateBus() {
        const std::string command =
            "dbus-daemon --session --fork --print-pid --address=" + address() + " 2>/dev/null";
        if (FILE* out = ::popen(command.c_str(), "r")) {
            char line[64] = "";
            pid_ = std::fgets(line, sizeof line, out) ? std::atoi(line) : -1;
            ::pclose(out);
        }
    }
    ~PrivateBus() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
        }
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    bool running() const { return pid_ > 0; }
    std::string address() const { return "unix:path=" + (directory_.path() / "bus").string(); }

  private:
    test::TemporaryDirectory directory_;
    pid_t pid_ = -1;
};

// NetworkManager as far as the probe sees it: the Metered property of its manager object. It
// answers on a thread of its own until destroyed.
class FakeNetworkManager {
  public:
    explicit FakeNetworkManager(const std::string& address) {
        static const sd_bus_vtable vtable[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_PROPERTY("Metered", "u", &FakeNetworkManager::getMetered, 0, 0),
            SD_BUS_VTABLE_END,
        };
        sd_bus* bus = nullptr;
        serving_ = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
                   sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0 &&
                   sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/NetworkManager",
                                            "org.freedesktop.NetworkManager", vtable, this) >= 0 &&
                   sd_bus_request_name(bus, "org.freedesktop.NetworkManager", 0) >= 0;
        bus_.reset(bus);
        thread_ = std::jthread([this](std::stop_token stop) {
            while (serving_ && !stop.stop_requested()) {
                if (sd_bus_process(bus_.get(), nullptr) <= 0) {
                    sd_bus_wait(bus_.get(), 20'000);
                }
            }
        });
    }

    bool serving() const { return serving_; }
    std::atomic<std::uint32_t> metered{0};

  private:
    static int getMetered(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                          void* self, sd_bus_error*) {
        return sd_bus_message_append(reply, "u",
                                     static_cast<FakeNetworkManager*>(self)->metered.load());
    }

    std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)> bus_{nullptr,
                                                                      &sd_bus_flush_close_unref};
    bool serving_ = false;
    std::jthread thread_;  // stopped and joined first
};

TEST(NetworkManagerMeteredProbeTest, OnlyYesAndGuessYesCountAsMetered) {
    PrivateBus bus;
    if (!bus.running()) {
        GTEST_SKIP() << "dbus-daemon cannot run here";
    }
    EXPECT_FALSE(networkManagerReportsMetered(bus.address())) << "no NetworkManager on the bus";
    EXPECT_FALSE(networkManagerReportsMetered("unix:path=/nonexistent/bus")) << "no bus";

    FakeNetworkManager manager(bus.address());
    ASSERT_TRUE(manager.serving());
    const struct {
        std::uint32_t value;
        const char* name;
        bool metered;
    } rows[] = {{0, "unknown", false}, {1, "yes", true}, {3, "guess-yes", true}};
    for (const auto& row : rows) {
        manager.metered.store(row.value);
        EXPECT_EQ(networkManagerReportsMetered(bus.address()), row.metered) << row.name;
    }
}

}  // namespace
}  // namespace terrane::common
