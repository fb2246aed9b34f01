#include "terrane/version/common_function_pointers.hpp"

#include "terrane/offline/offline_service.hpp"
#include "terrane/version/version.hpp"

namespace terrane::common {
namespace {

// POSIX guarantees that a function address survives the round trip through void*, as dlsym
// relies on.
template <typename Function>
void* addressOf(Function* function) {
    return reinterpret_cast<void*>(function);
}

}  // namespace

CommonFunctionPointers commonFunctionPointers() {
    return {{
        {"terrane_common_get_major_version", addressOf(&terrane_common_get_major_version)},
        {"terrane_common_get_minor_version", addressOf(&terrane_common_get_minor_version)},
        {"terrane_common_get_patch_version", addressOf(&terrane_common_get_patch_version)},
        {"terrane_common_get_version_string", addressOf(&terrane_common_get_version_string)},
        {"terrane_common_offline_service_register_observer",
         addressOf(&terrane_common_offline_service_register_observer)},
        {"terrane_common_offline_service_unregister_observer",
         addressOf(&terrane_common_offline_service_unregister_observer)},
    }};
}

}  // namespace terrane::common
