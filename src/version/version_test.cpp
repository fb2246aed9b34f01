#include "terrane/version/version.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "terrane/offline/offline_service.hpp"
#include "terrane/version/common_function_pointers.hpp"

namespace terrane::common {
namespace {

TEST(Version, Is9_2_0) {
    EXPECT_EQ(Version::getMajorVersion(), 9);
    EXPECT_EQ(Version::getMinorVersion(), 2);
    EXPECT_EQ(Version::getPatchVersion(), 0);
    EXPECT_EQ(Version::getCommonSDKVersionString(), "9.2.0");
}

TEST(VersionFunctions, AgreeWithTheVersionClass) {
    EXPECT_EQ(terrane_common_get_major_version(), Version::getMajorVersion());
    EXPECT_EQ(terrane_common_get_minor_version(), Version::getMinorVersion());
    EXPECT_EQ(terrane_common_get_patch_version(), Version::getPatchVersion());
    EXPECT_STREQ(terrane_common_get_version_string(), Version::getCommonSDKVersionString().c_str());
}

TEST(VersionFunctions, VersionStringIsOneStaticObject) {
    const char* first = terrane_common_get_version_string();
    const char* second = terrane_common_get_version_string();
    EXPECT_EQ(first, second);
    EXPECT_EQ(std::strlen(first), 5u);
    // Not a buffer of a temporary std::string: the text outlives every other call.
    const std::string copy = Version::getCommonSDKVersionString();
    EXPECT_NE(static_cast<const void*>(copy.c_str()), static_cast<const void*>(first));
    EXPECT_STREQ(first, "9.2.0");
}

TEST(CommonFunctionPointers, ListsTheSixExportedFunctionsInOrder) {
    const CommonFunctionPointers table = commonFunctionPointers();
    ASSERT_EQ(table.size(), 6u);
    const char* const expected[] = {
        "terrane_common_get_major_version",
        "terrane_common_get_minor_version",
        "terrane_common_get_patch_version",
        "terrane_common_get_version_string",
        "terrane_common_offline_service_register_observer",
        "terrane_common_offline_service_unregister_observer",
    };
    for (std::size_t i = 0; i < table.size(); ++i) {
        EXPECT_STREQ(table[i].name, expected[i]) << "entry " << i;
        EXPECT_NE(table[i].address, nullptr) << expected[i];
    }
}

TEST(CommonFunctionPointers, AddressesCallTheNamedFunctions) {
    const CommonFunctionPointers table = commonFunctionPointers();
    using IntegerFunction = std::int32_t (*)();
    using TextFunction = const char* (*)();
    EXPECT_EQ(reinterpret_cast<IntegerFunction>(table[0].address)(), 9);
    EXPECT_EQ(reinterpret_cast<IntegerFunction>(table[1].address)(), 2);
    EXPECT_EQ(reinterpret_cast<IntegerFunction>(table[2].address)(), 0);
    EXPECT_EQ(reinterpret_cast<TextFunction>(table[3].address)(),
              terrane_common_get_version_string());
    EXPECT_EQ(table[4].address,
              reinterpret_cast<void*>(&terrane_common_offline_service_register_observer));
    EXPECT_EQ(table[5].address,
              reinterpret_cast<void*>(&terrane_common_offline_service_unregister_observer));
}

}  // namespace
}  // namespace terrane::common
