#include "platform/linux/cellular_link.hpp"

#include <gtest/gtest.h>
#include <linux/if_arp.h>

namespace terrane::common {
namespace {

TEST(CellularLinkTest, ModemsAreKnownByDeviceTypeLinkTypeOrDriverName) {
    const struct {
        const char* name;
        unsigned short type;
        const char* uevent;
        bool cellular;
    } rows[] = {
        {"wlan0", ARPHRD_ETHER, "DEVTYPE=wlan\nINTERFACE=wlan0\n", false},
        {"usb0", ARPHRD_ETHER, "DEVTYPE=wwan\nINTERFACE=usb0\n", true},
        {"modem", ARPHRD_ETHER, "INTERFACE=modem\nDEVTYPE=wwan", true},
        {"ppp0", ARPHRD_PPP, "", true},
        {"mhi0", ARPHRD_RAWIP, "", true},
        {"wwan0", ARPHRD_ETHER, "", true},
        {"tun0", ARPHRD_NONE, "DEVTYPE=wwanx\n", false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(isCellularLink(row.name, row.type, row.uevent), row.cellular) << row.name;
    }
}

}  // namespace
}  // namespace terrane::common
