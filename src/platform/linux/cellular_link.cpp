#include "platform/linux/cellular_link.hpp"

#include <linux/if_arp.h>

#include <array>
#include <fstream>
#include <sstream>

namespace terrane::common {
namespace {

// Name prefixes of modem drivers that do not declare their device type.
constexpr std::array<std::string_view, 4> kModemNamePrefixes = {"wwan", "rmnet", "ccmni", "qmimux"};

}  // namespace

bool isCellularLink(std::string_view name, unsigned short type, std::string_view uevent) {
    if (type == ARPHRD_PPP || type == ARPHRD_RAWIP) {
        return true;
    }
    for (const std::string_view prefix : kModemNamePrefixes) {
        if (name.starts_with(prefix)) {
            return true;
        }
    }
    std::size_t start = 0;
    while (start < uevent.size()) {
        std::size_t end = uevent.find('\n', start);
        if (end == std::string_view::npos) {
            end = uevent.size();
        }
        if (uevent.substr(start, end - start) == "DEVTYPE=wwan") {
            return true;
        }
        start = end + 1;
    }
    return false;
}

std::string readLinkUevent(const std::string& name) {
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
        return {};
    }
    std::ifstream file("/sys/class/net/" + name + "/uevent");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace terrane::common
