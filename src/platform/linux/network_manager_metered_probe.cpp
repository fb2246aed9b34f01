#include "platform/linux/network_manager_metered_probe.hpp"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>

namespace terrane::common {
namespace {

// NetworkManager's NMMetered values.
constexpr std::uint32_t kMeteredYes = 1;
constexpr std::uint32_t kMeteredGuessYes = 3;

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageReleaser {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;
using Message = std::unique_ptr<sd_bus_message, MessageReleaser>;

Bus connect(const std::string& busAddress) {
    sd_bus* bus = nullptr;
    if (busAddress.empty()) {
        if (sd_bus_open_system(&bus) < 0) {
            return nullptr;
        }
        return Bus(bus);
    }
    if (sd_bus_new(&bus) < 0) {
        return nullptr;
    }
    Bus owned(bus);
    if (sd_bus_set_address(bus, busAddress.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_start(bus) < 0) {
        return nullptr;
    }
    return owned;
}

}  // namespace

bool networkManagerReportsMetered(const std::string& busAddress, std::chrono::milliseconds bound) {
    const Bus bus = connect(busAddress);
    if (!bus) {
        return false;
    }
    sd_bus_message* call = nullptr;
    if (sd_bus_message_new_method_call(bus.get(), &call, "org.freedesktop.NetworkManager",
                                       "/org/freedesktop/NetworkManager",
                                       "org.freedesktop.DBus.Properties", "Get") < 0) {
        return false;
    }
    const Message request(call);
    if (sd_bus_message_append(call, "ss", "org.freedesktop.NetworkManager", "Metered") < 0) {
        return false;
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* answer = nullptr;
    const auto timeout = static_cast<std::uint64_t>(std::chrono::microseconds(bound).count());
    const int status = sd_bus_call(bus.get(), call, timeout, &error, &answer);
    sd_bus_error_free(&error);
    if (status < 0) {
        return false;
    }
    const Message reply(answer);
    std::uint32_t metered = 0;
    if (sd_bus_message_read(answer, "v", "u", &metered) < 0) {
        return false;
    }
    return metered == kMeteredYes || metered == kMeteredGuessYes;
}

}  // namespace terrane::common
