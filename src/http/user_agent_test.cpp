#include "http/user_agent.hpp"

#include <gtest/gtest.h>

#include <functional>

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

TEST(UserAgentTest, ComponentsFallbacksAndAbsentPiecesMakeTheHeader) {
    const std::string product = " Terrane Common/" + Version::getCommonSDKVersionString();
    struct Row {
        const char* what;
        std::function<void(UAComponents&, UserAgentFallbacks&)> change;
        std::string expected;
    };
    const std::vector<Row> rows{
        {"every component", [](auto&, auto& f) { f = {}; },
         "Atlas/2.1 (atlas-app; 77; iOS 17.2) RouteKit/3.0.1 (routekit; 12)"},
        {"every value from the platform", [](auto& c, auto&) { c = {}; },
         "mapper/1.0 (org.example.mapper; 5; Linux 6.1.0) TerraneCommon/9.2.0 (terrane-common; "
         "321)"},
        {"no app version", [](auto& c, auto& f) { c.appVersionComponent = "", f = {}; },
         "Atlas (atlas-app; 77; iOS 17.2) RouteKit/3.0.1 (routekit; 12)"},
        {"no app build", [](auto& c, auto& f) { c.appBuildNumberComponent = "unknown", f = {}; },
         "Atlas/2.1 RouteKit/3.0.1 (routekit; 12)"},
        {"no os version", [](auto& c, auto& f) { c.osVersionComponent = "", f = {}; },
         "Atlas/2.1 RouteKit/3.0.1 (routekit; 12)"},
        {"only the platform's os version",
         [](auto& c, auto& f) { c.osVersionComponent = "", f = {}, f.osVersion = "6.1"; },
         "Atlas/2.1 (atlas-app; 77; iOS 6.1) RouteKit/3.0.1 (routekit; 12)"},
        {"sdk without build",
         [](auto& c, auto& f) {
             c = {}, c.sdkNameComponent = "RouteKit", c.sdkIdentifierComponent = "routekit", f = {};
         },
         "RouteKit"},
        {"sdk details without name",
         [](auto& c, auto& f) {
             c = {}, c.sdkIdentifierComponent = "routekit", c.sdkBuildNumberComponent = "12",
             f = {};
         },
         "(routekit; 12)"},
        {"an empty sdk piece keeps its place",
         [](auto& c, auto& f) { c = {}, c.appNameComponent = "Atlas", f = {}; }, "Atlas "},
        {"empty or unknown fallbacks",
         [](auto& c, auto& f) { c = {}, f = {}, f.appName = "unknown", f.sdkName = ""; }, ""},
    };
    for (const auto& row : rows) {
        auto components = atlas;
        auto fallbacks = desktop;
        row.change(components, fallbacks);
        EXPECT_EQ(buildUserAgentString(components, fallbacks), row.expected + product) << row.what;
    }
}

}  // namespace
}  // namespace terrane::common
