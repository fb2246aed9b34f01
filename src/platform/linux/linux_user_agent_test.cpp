#include "platform/linux/linux_user_agent.hpp"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include "terrane/version/version.hpp"

namespace terrane::common {
namespace {

TEST(LinuxUserAgentTest, KernelReleasesBecomeThreeNumbers) {
    EXPECT_EQ(osVersionFromKernelRelease("6.1.0-18-amd64"), "6.1.0");
    EXPECT_EQ(osVersionFromKernelRelease("5.15.133.1-microsoft-standard-WSL2"), "5.15.133");
    EXPECT_EQ(osVersionFromKernelRelease("5.10"), "5.10.0");
    EXPECT_EQ(osVersionFromKernelRelease("6.8-rc3"), "6.8.0");
    EXPECT_EQ(osVersionFromKernelRelease("4.-weird"), "4.0.0");
    EXPECT_EQ(osVersionFromKernelRelease("7"), "7.0.0");
    EXPECT_EQ(osVersionFromKernelRelease(""), nullopt);
    EXPECT_EQ(osVersionFromKernelRelease("linux-6.1"), nullopt);
}

TEST(LinuxUserAgentTest, FallbacksNameTheProgramTheKernelAndThisLibrary) {
    const auto& fallbacks = linuxUserAgentFallbacks();
    EXPECT_EQ(fallbacks.appName, "terrane_platform_linux_tests");
    EXPECT_EQ(fallbacks.appVersion, nullopt);
    EXPECT_EQ(fallbacks.appIdentifier, nullopt);
    EXPECT_EQ(fallbacks.appBuildNumber, nullopt);
    EXPECT_EQ(fallbacks.osName, "Linux");
    utsname system{};
    ASSERT_EQ(::uname(&system), 0);
    EXPECT_EQ(fallbacks.osVersion, osVersionFromKernelRelease(system.release));
    EXPECT_EQ(fallbacks.sdkName, "TerraneCommon");
    EXPECT_EQ(fallbacks.sdkVersion, Version::getCommonSDKVersionString());
    EXPECT_EQ(fallbacks.sdkIdentifier, "terrane-common");
#ifndef TERRANE_SDK_BUILD_NUMBER
    EXPECT_EQ(fallbacks.sdkBuildNumber, nullopt);
#endif
}

TEST(LinuxUserAgentTest, DefaultComponentsGiveTheProgramAndLibraryPieces) {
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
    EXPECT_TRUE(header.starts_with("Atlas/2.1 (atlas-app; 77; Linux ")) << header;
}

}  // namespace
}  // namespace terrane::common
