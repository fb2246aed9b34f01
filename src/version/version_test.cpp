#include "terrane/version/version.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "terrane/offline/offline_service.hpp"
#include "terrane/version/common_function_pointers.hpp"

namespace terrane::common {
namespace {

TEST(CommonFunctionPointers, ListTheSixExportedFunctionsInOrder) {
    const CommonFunctionPointers table = commonFunctionPointers();
    std::vector<std::string> names;
    for (const auto& entry : table) {
        names.push_back(entry.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{
                         "terrane_common_get_major_version", "terrane_common_get_minor_version",
                         "terrane_common_get_patch_version", "terrane_common_get_version_string",
                         "terrane_common_offline_service_register_observer",
                         "terrane_common_offline_service_unregister_observer"}));
    using IntegerFunction = std::int32_t (*)();
    EXPECT_EQ(reinterpret_cast<IntegerFunction>(table[0].address)(), 9);
    EXPECT_EQ(reinterpret_cast<IntegerFunction>(table[1].address)(), 2);
    EXPECT_EQ(reinterpret_cast<IntegerFunction>(table[2].address)(), 0);
    EXPECT_STREQ(reinterpret_cast<const char* (*)()>(table[3].address)(), "9.2.0");
    EXPECT_EQ(table[4].address,
              reinterpret_cast<void*>(&terrane_common_offline_service_register_observer));
    EXPECT_EQ(table[5].address,
              reinterpret_cast<void*>(&terrane_common_offline_service_unregister_observer));
}

TEST(Version, IsNinePointTwoInOneStaticText) {
    EXPECT_EQ(Version::getCommonSDKVersionString(), "9.2.0");
    // Not a buffer of a temporary std::string: the text outlives every other call.
    EXPECT_EQ(terrane_common_get_version_string(), terrane_common_get_version_string());
}

}  // namespace
}  // namespace terrane::common
