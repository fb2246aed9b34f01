#include "http/user_agent.hpp"

#include <gtest/gtest.h>

#include "terrane/version/version.hpp"

namespace terrane::common {
namespace {

const std::string kProduct = "Terrane Common/" + Version::getCommonSDKVersionString();

UAComponents atlasComponents() {
    UAComponents components;
    components.appNameComponent = "Atlas";
    components.appVersionComponent = "2.1";
    components.appIdentifierComponent = "atlas-app";
    components.appBuildNumberComponent = "77";
    components.osNameComponent = "iOS";
    components.osVersionComponent = "17.2";
    components.sdkNameComponent = "RouteKit";
    components.sdkVersionComponent = "3.0.1";
    components.sdkIdentifierComponent = "routekit";
    components.sdkBuildNumberComponent = "12";
    return components;
}

UserAgentFallbacks desktopFallbacks() {
    UserAgentFallbacks fallbacks;
    fallbacks.appName = "mapper";
    fallbacks.osName = "Linux";
    fallbacks.osVersion = "6.1.0";
    fallbacks.sdkName = "TerraneCommon";
    fallbacks.sdkVersion = "9.2.0";
    fallbacks.sdkIdentifier = "terrane-common";
    return fallbacks;
}

TEST(UserAgentTest, EmptyAndUnknownComponentsCountAsAbsent) {
    EXPECT_TRUE(isValidUAComponent("Atlas"));
    EXPECT_TRUE(isValidUAComponent("Unknown"));  // only the exact placeholder is absent
    EXPECT_FALSE(isValidUAComponent(""));
    EXPECT_FALSE(isValidUAComponent("unknown"));
}

TEST(UserAgentTest, EveryComponentGivenMakesTheFullHeader) {
    EXPECT_EQ(buildUserAgentString(atlasComponents(), desktopFallbacks()),
              "Atlas/2.1 (atlas-app; 77; iOS 17.2) RouteKit/3.0.1 (routekit; 12) " + kProduct);
}

TEST(UserAgentTest, DefaultComponentsTakeEveryValueFromThePlatform) {
    auto fallbacks = desktopFallbacks();
    fallbacks.appVersion = "1.0";
    fallbacks.appIdentifier = "org.example.mapper";
    fallbacks.appBuildNumber = "5";
    fallbacks.sdkBuildNumber = "321";
    EXPECT_EQ(buildUserAgentString(UAComponents{}, fallbacks),
              "mapper/1.0 (org.example.mapper; 5; Linux 6.1.0) TerraneCommon/9.2.0 "
              "(terrane-common; 321) " +
                  kProduct);
}

TEST(UserAgentTest, AnAbsentAppVersionLeavesTheNameAlone) {
    auto components = atlasComponents();
    components.appVersionComponent = "";
    EXPECT_TRUE(
        buildUserAgentString(components, {}).starts_with("Atlas (atlas-app; 77; iOS 17.2) "));
}

TEST(UserAgentTest, AnAbsentAppBuildDropsTheWholeDetailPiece) {
    auto components = atlasComponents();
    components.appBuildNumberComponent = "unknown";
    EXPECT_EQ(buildUserAgentString(components, {}),
              "Atlas/2.1 RouteKit/3.0.1 (routekit; 12) " + kProduct);
}

TEST(UserAgentTest, WithoutAnOsVersionThereIsNoSystemInformationAndNoDetailPiece) {
    auto components = atlasComponents();
    components.osVersionComponent = "";
    EXPECT_EQ(systemInformation(components, {}), nullopt);
    EXPECT_EQ(buildUserAgentString(components, {}),
              "Atlas/2.1 RouteKit/3.0.1 (routekit; 12) " + kProduct);
    // The platform's own version stands in for an absent component.
    EXPECT_EQ(systemInformation(components, desktopFallbacks()), "iOS 6.1.0");
}

TEST(UserAgentTest, AnUnknownOsNameIsReplacedByThePlatformsName) {
    auto components = atlasComponents();
    components.osNameComponent = "unknown";
    EXPECT_EQ(systemInformation(components, desktopFallbacks()), "Linux 17.2");
}

TEST(UserAgentTest, SdkInformationNeedsANameAndBothIdentifierAndBuildForTheParentheses) {
    UAComponents components;
    components.sdkNameComponent = "RouteKit";
    EXPECT_EQ(sdkInformation(components, {}), "RouteKit");
    components.sdkIdentifierComponent = "routekit";
    EXPECT_EQ(sdkInformation(components, {}), "RouteKit");
    components.sdkBuildNumberComponent = "12";
    EXPECT_EQ(sdkInformation(components, {}), "RouteKit (routekit; 12)");
    components.sdkNameComponent = "";
    EXPECT_EQ(sdkInformation(components, {}), "(routekit; 12)");
    EXPECT_EQ(sdkInformation(UAComponents{}, {}), "");
}

TEST(UserAgentTest, AnEmptySdkPieceStillTakesItsPlace) {
    UAComponents components;
    components.appNameComponent = "Atlas";
    EXPECT_EQ(buildUserAgentString(components, {}), "Atlas  " + kProduct);
}

TEST(UserAgentTest, FallbacksThatAreEmptyOrUnknownAreAbsentToo) {
    UserAgentFallbacks fallbacks;
    fallbacks.appName = "unknown";
    fallbacks.sdkName = "";
    EXPECT_EQ(buildUserAgentString(UAComponents{}, fallbacks), " " + kProduct);
}

}  // namespace
}  // namespace terrane::common
