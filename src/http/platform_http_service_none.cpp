#include "http/platform_http_service.hpp"

namespace terrane::common {

// A build without a platform HTTP client: only a service supplied by the application through
// HttpServiceFactory::setUserDefined can reach the network.
std::shared_ptr<HttpServiceInterface> createPlatformHttpService() {
    return nullptr;
}

}  // namespace terrane::common
