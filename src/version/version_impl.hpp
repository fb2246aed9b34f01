#pragma once

#include <cstdint>
#include <string_view>

namespace terrane::common {

// Where the version numbers live. Stateless; every operation is reentrant.
class VersionImpl {
  public:
    VersionImpl() = delete;

    static constexpr std::int32_t getMajorVersion() { return 9; }
    static constexpr std::int32_t getMinorVersion() { return 2; }
    static constexpr std::int32_t getPatchVersion() { return 0; }
    // A view of a zero-terminated string with static storage duration.
    static std::string_view getCommonSDKVersionString();
};

}  // namespace terrane::common
