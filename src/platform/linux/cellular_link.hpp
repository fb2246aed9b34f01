#pragma once

#include <string>
#include <string_view>

namespace terrane::common {

// Whether a link is a cellular modem's: its uevent says DEVTYPE=wwan, it is a PPP or raw-IP
// link, or it carries a modem driver's name (wwan0, rmnet_data0, ccmni1, qmimux0). `uevent` is
// the text of /sys/class/net/<name>/uevent, empty when unknown. Any thread.
bool isCellularLink(std::string_view name, unsigned short type, std::string_view uevent);

// The text of /sys/class/net/<name>/uevent, or empty. Any thread.
std::string readLinkUevent(const std::string& name);

}  // namespace terrane::common
