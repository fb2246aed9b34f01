#include "platform/linux/linux_user_agent.hpp"

#include <gtest/gtest.h>

#include "terrane/version/version.hpp"

namespace terrane::common {
namespace {

TEST(LinuxUserAgentTest, KernelReleasesBecomeThreeNumbers) {
    const struct {
        const char* release;
        optional<std::string> version;
    } rows[] = {
        {"6.1.0-18-amd64", "6.1.0"},
        {"5.10", "5.10.0"},
        {"6.8-rc3", "6.8.0"},
        {"4.-weird", "4.0.0"},
        {"1234567890.2", "123456789.0.0"},  // at most nine digits a number
        {"linux-6.1", nullopt},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(osVersionFromKernelRelease(row.release), row.version) << row.release;
    }
}

TEST(LinuxUserAgentTest, AbsentComponentsComeFromTheProgramAndThisLibrary) {
    const auto& fallbacks = linuxUserAgentFallbacks();
    const std::string version = Version::getCommonSDKVersionString();
#ifndef TERRANE_SDK_BUILD_NUMBER
    EXPECT_EQ(linuxUserAgent(UAComponents{}), "terrane_platform_linux_tests TerraneCommon/" +
                                                  version + " Terrane Common/" + version);
#endif
    UAComponents components;
    components.appNameComponent = "Atlas";
    components.appVersionComponent = "2.1";
    components.appIdentifierComponent = "atlas-app";
    components.appBuildNumberComponent = "77";
    const auto header = linuxUserAgent(components);
    EXPECT_TRUE(header.starts_with("Atlas/2.1 (atlas-app; 77; Linux " + *fallbacks.osVersion))
        << header;
}

}  // namespace
}  // namespace terrane::common
