#include "platform/linux/linux_user_agent.hpp"

#include <sys/utsname.h>

#include <cerrno>
#include <cstdint>

#include "terrane/version/version.hpp"

// The build number is fixed when the library is built, for example
// -DTERRANE_SDK_BUILD_NUMBER=1234; a build that sets none reports no SDK build.
#ifdef TERRANE_SDK_BUILD_NUMBER
#define TERRANE_STRINGIFY_VALUE(value) #value
#define TERRANE_STRINGIFY(value) TERRANE_STRINGIFY_VALUE(value)
#define TERRANE_SDK_BUILD_TEXT TERRANE_STRINGIFY(TERRANE_SDK_BUILD_NUMBER)
#endif

namespace terrane::common {

namespace {

optional<std::string> programShortName() {
    // Set by the C library from argv[0] before main; it is the name the process was started as,
    // which is what an administrator reading server logs recognises.
    const char* name = program_invocation_short_name;
    if (name == nullptr || *name == '\0') {
        return nullopt;
    }
    return std::string(name);
}

optional<std::string> kernelVersion() {
    utsname system{};
    if (::uname(&system) != 0) {
        return nullopt;
    }
    return osVersionFromKernelRelease(system.release);
}

optional<std::string> sdkBuildNumber() {
#ifdef TERRANE_SDK_BUILD_TEXT
    return std::string(TERRANE_SDK_BUILD_TEXT);
#else
    return nullopt;
#endif
}

UserAgentFallbacks gatherFallbacks() {
    UserAgentFallbacks fallbacks;
    fallbacks.appName = programShortName();
    fallbacks.osName = "Linux";
    fallbacks.osVersion = kernelVersion();
    fallbacks.sdkName = "TerraneCommon";
    fallbacks.sdkVersion = Version::getCommonSDKVersionString();
    fallbacks.sdkIdentifier = "terrane-common";
    fallbacks.sdkBuildNumber = sdkBuildNumber();
    return fallbacks;
}

}  // namespace

optional<std::string> osVersionFromKernelRelease(std::string_view release) {
    std::uint64_t numbers[3] = {0, 0, 0};
    std::size_t position = 0;
    for (int index = 0; index < 3; ++index) {
        if (index > 0) {
            if (position >= release.size() || release[position] != '.') {
                break;
            }
            ++position;
        }
        const std::size_t start = position;
        std::uint64_t value = 0;
        while (position < release.size() && release[position] >= '0' && release[position] <= '9' &&
               position - start < 9) {
            value = value * 10 + static_cast<std::uint64_t>(release[position] - '0');
            ++position;
        }
        if (position == start) {
            if (index == 0) {
                return nullopt;
            }
            // "6.-rc1": the dot belongs to no number.
            break;
        }
        numbers[index] = value;
    }
    return std::to_string(numbers[0]) + "." + std::to_string(numbers[1]) + "." +
           std::to_string(numbers[2]);
}

const UserAgentFallbacks& linuxUserAgentFallbacks() {
    static const UserAgentFallbacks fallbacks = gatherFallbacks();
    return fallbacks;
}

std::string linuxUserAgent(const UAComponents& components) {
    return buildUserAgentString(components, linuxUserAgentFallbacks());
}

}  // namespace terrane::common
