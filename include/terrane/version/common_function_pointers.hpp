#pragma once

#include <array>

#include "terrane/export.hpp"

namespace terrane::common {

// One exported plain function: its unmangled name and its address. Both point into the library's
// static storage and stay valid while the library is loaded.
struct CommonFunctionPointer {
    const char* name;
    // The function's address, to be converted back to its real signature before the call.
    void* address;
};

using CommonFunctionPointers = std::array<CommonFunctionPointer, 6>;

// The library's exported plain functions by name, so that a companion library can reach them
// without linking against them. In this order: terrane_common_get_major_version,
// terrane_common_get_minor_version, terrane_common_get_patch_version,
// terrane_common_get_version_string, terrane_common_offline_service_register_observer,
// terrane_common_offline_service_unregister_observer. Any thread; returns a fresh copy.
TERRANE_EXPORT CommonFunctionPointers commonFunctionPointers();

}  // namespace terrane::common
