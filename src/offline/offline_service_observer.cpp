#include "terrane/offline/offline_service_observer.hpp"

namespace terrane::common {

// Out of line so that the vtable and type information have one home in the shared library.
OfflineServiceObserver::~OfflineServiceObserver() = default;

}  // namespace terrane::common
