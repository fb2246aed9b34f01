#pragma once

#include <memory>

#include "terrane/http/http_service_interface.hpp"

namespace terrane::common {

// Creates this platform's built-in HTTP service, or returns an empty pointer when the platform has
// none. Exactly one platform_http_service_*.cpp defines it in a given build. Called by the factory
// under its mutex, so it must not call back into HttpServiceFactory.
std::shared_ptr<HttpServiceInterface> createPlatformHttpService();

}  // namespace terrane::common
