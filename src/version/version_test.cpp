#include "terrane/version/version.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "terrane/offline/offline_service.hpp"
#include "terrane/version/common_function_pointers.hpp"

namespace terrane::common {
namespace {

TEST(CommonFunctionPointers, ListTheSixExportedFunctionsOfVersionNinePointTwo) {
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
    EXPECT_EQ(reinterpret_cast<std::int32_t (*)()>(table[1].address)(), 2);
    EXPECT_STREQ(reinterpret_cast<const char* (*)()>(table[3].address)(), "9.2.0");
    EXPECT_EQ(table[5].address,
              reinterpret_cast<void*>(&terrane_common_offline_service_unregister_observer));
}

}  // namespace
}  // namespace terrane::common
