#pragma once

#include <string>
#include <string_view>

#include "http/user_agent.hpp"
#include "terrane/expected.hpp"
#include "terrane/http/ua_components.hpp"

namespace terrane::common {

// What Linux offers for the User-Agent components a request leaves absent: the program's short
// name as the application (no version, identifier or build: an executable carries none), "Linux"
// and the kernel release as the operating system, and this library as the SDK. Gathered once per
// process; any thread.
const UserAgentFallbacks& linuxUserAgentFallbacks();

// The "User-Agent" value for a request from this process. Any thread.
std::string linuxUserAgent(const UAComponents& components);

// The kernel release as "major.minor.patch", digits only: "6.1.0-18-amd64" gives "6.1.0", "5.10"
// gives "5.10.0". Nothing when the release does not start with a number.
optional<std::string> osVersionFromKernelRelease(std::string_view release);

}  // namespace terrane::common
