#pragma once

#include <string>
#include <string_view>

#include "terrane/expected.hpp"
#include "terrane/http/ua_components.hpp"

namespace terrane::common {

// The values a platform supplies for the User-Agent components a request leaves absent. A field
// left empty has no fallback on this platform, so the piece that needs it is dropped. A plain value
// record; it belongs to whoever holds it.
struct UserAgentFallbacks {
    optional<std::string> appName;
    optional<std::string> appVersion;
    optional<std::string> appIdentifier;
    optional<std::string> appBuildNumber;
    optional<std::string> osName;
    optional<std::string> osVersion;
    optional<std::string> sdkName;
    optional<std::string> sdkVersion;
    optional<std::string> sdkIdentifier;
    optional<std::string> sdkBuildNumber;
};

// The composition of the "User-Agent" header, shared by every platform; each platform brings its
// own fallbacks. All functions are pure and may be called from any thread.

// Whether a component carries a value: neither empty nor the "unknown" placeholder.
bool isValidUAComponent(std::string_view component);

// "<os name> <os version>", or nothing when either is absent.
optional<std::string> systemInformation(const UAComponents& components,
                                        const UserAgentFallbacks& fallbacks);

// "<sdk name>/<sdk version> (<sdk identifier>; <sdk build>)", each piece only when its values
// are there (the name alone without a version); empty when there is no piece at all.
std::string sdkInformation(const UAComponents& components, const UserAgentFallbacks& fallbacks);

// The whole header value, for example
//   Atlas/2.1 (atlas-app; 77; Linux 6.1.0) RouteKit/3.0.1 (routekit; 12) Terrane Common/9.2.0
// The last piece always names this library and its version.
std::string buildUserAgentString(const UAComponents& components,
                                 const UserAgentFallbacks& fallbacks);

}  // namespace terrane::common
