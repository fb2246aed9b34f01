#include "terrane/version/version.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "terrane/offline/offline_service.hpp"
#include "terrane/version/common_function_pointers.hpp"

namespace terrane::common {
namespace {

TEST(CommonFunctionPointers, ListTheSixExportedFunctionsInOrderAndCallThem) {
    const CommonFunctionPointers table = commonFunctionPointers();
    const char* const names[] = {
        "terrane_common_get_major_version",
        "terrane_common_get_minor_version",
        "terrane_common_get_patch_version",
        "terrane_common_get_version_string",
        "terrane_common_offline_service_register_observer",
        "terrane_common_offline_service_unregister_observer",
    };
    ASSERT_EQ(table.size(), std::size(names));
    for (std::size_t i = 0; i < table.size(); ++i) {
        EXPECT_STREQ(table[i].name, names[i]) << "entry " << i;
    }
    using IntegerFunction = std::int32_t (*)();
    using TextFunction = const char* (*)();
    EXPECT_EQ(reinterpret_cast<IntegerFunction>(table[0].address)(), Version::getMajorVersion());
    EXPECT_EQ(reinterpret_cast<IntegerFunction>(table[1].address)(), Version::getMinorVersion());
    EXPECT_EQ(reinterpret_cast<IntegerFunction>(table[2].address)(), Version::getPatchVersion());
    EXPECT_EQ(reinterpret_cast<TextFunction>(table[3].address)(),
              terrane_common_get_version_string());
    EXPECT_EQ(table[4].address,
              reinterpret_cast<void*>(&terrane_common_offline_service_register_observer));
    EXPECT_EQ(table[5].address,
              reinterpret_cast<void*>(&terrane_common_offline_service_unregister_observer));
}

TEST(Version, IsNinePointTwoInOneStaticText) {
    EXPECT_EQ(Version::getCommonSDKVersionString(), "9.2.0");
    const char* text = terrane_common_get_version_string();
    EXPECT_STREQ(text, "9.2.0");
    // Not a buffer of a temporary std::string: the text outlives every other call.
    EXPECT_EQ(terrane_common_get_version_string(), text);
}

}  // namespace
}  // namespace terrane::common
