#pragma once

#include <cstdint>
#include <string>

#include "terrane/export.hpp"

namespace terrane::common {

// The library's own version, fixed when it was built. Stateless: every operation is static,
// reentrant and callable from any thread; results are owned by the caller.
class TERRANE_EXPORT Version {
  public:
    Version() = delete;

    static std::int32_t getMajorVersion();
    static std::int32_t getMinorVersion();
    static std::int32_t getPatchVersion();
    // The three numbers joined by ".".
    static std::string getCommonSDKVersionString();
};

}  // namespace terrane::common

// Plain entry points for callers that cannot use the C++ class names (they are also reachable by
// name through terrane::common::commonFunctionPointers()). Any thread.
extern "C" {
TERRANE_EXPORT std::int32_t terrane_common_get_major_version();
TERRANE_EXPORT std::int32_t terrane_common_get_minor_version();
TERRANE_EXPORT std::int32_t terrane_common_get_patch_version();
// The same zero-terminated text on every call; it belongs to the library and lives as long as the
// library stays loaded. The caller must not free it.
TERRANE_EXPORT const char* terrane_common_get_version_string();
}
