#include "http/user_agent.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "terrane/version/version.hpp"

namespace terrane::common {
namespace {

// Both in the order app name, version, identifier, build; os name, version; sdk name, version,
// identifier, build.
const UAComponents atlas{"Atlas", "2.1",      "atlas-app", "77",       "iOS",
                         "17.2",  "RouteKit", "3.0.1",     "routekit", "12"};
const UserAgentFallbacks desktop{"mapper",         "1.0",   "org.example.mapper", "5",
                                 "Linux",          "6.1.0", "TerraneCommon",      "9.2.0",
                                 "terrane-common", "321"};

// Each row changes the components, or the fallbacks, which start empty.
TEST(UserAgentTest, ComponentsFallbacksAndAbsentPiecesMakeTheHeader) {
    const std::string product = " Terrane Common/" + Version::getCommonSDKVersionString();
    using Change = std::function<void(UAComponents&, UserAgentFallbacks&)>;
    const std::vector<std::tuple<const char*, Change, std::string>> rows{
        {"every component", [](auto&, auto&) {},
         "Atlas/2.1 (atlas-app; 77; iOS 17.2) RouteKit/3.0.1 (routekit; 12)"},
        {"every value from the platform", [](auto& c, auto& f) { c = {}, f = desktop; },
         "mapper/1.0 (org.example.mapper; 5; Linux 6.1.0) TerraneCommon/9.2.0 (terrane-common; "
         "321)"},
        {"no app version", [](auto& c, auto&) { c.appVersionComponent = ""; },
         "Atlas (atlas-app; 77; iOS 17.2) RouteKit/3.0.1 (routekit; 12)"},
        {"no app build", [](auto& c, auto&) { c.appBuildNumberComponent = "unknown"; },
         "Atlas/2.1 RouteKit/3.0.1 (routekit; 12)"},
        {"no os version", [](auto& c, auto&) { c.osVersionComponent = ""; },
         "Atlas/2.1 RouteKit/3.0.1 (routekit; 12)"},
        {"only the platform's os version",
         [](auto& c, auto& f) { c.osVersionComponent = "", f.osVersion = "6.1"; },
         "Atlas/2.1 (atlas-app; 77; iOS 6.1) RouteKit/3.0.1 (routekit; 12)"},
        {"sdk without build",
         [](auto& c, auto&) {
             c = {.sdkNameComponent = "RouteKit", .sdkIdentifierComponent = "routekit"};
         },
         "RouteKit"},
        {"sdk details without name",
         [](auto& c, auto&) {
             c = {.sdkIdentifierComponent = "routekit", .sdkBuildNumberComponent = "12"};
         },
         "(routekit; 12)"},
        {"an empty sdk piece keeps its place",
         [](auto& c, auto&) { c = {.appNameComponent = "Atlas"}; }, "Atlas "},
        {"empty or unknown fallbacks",
         [](auto& c, auto& f) { c = {}, f.appName = "unknown", f.sdkName = ""; }, ""},
    };
    for (const auto& [what, change, expected] : rows) {
        auto components = atlas;
        UserAgentFallbacks fallbacks;
        change(components, fallbacks);
        EXPECT_EQ(buildUserAgentString(components, fallbacks), expected + product) << what;
    }
}

}  // namespace
}  // namespace terrane::common
