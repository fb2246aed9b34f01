#include "terrane/http/http_service_factory.hpp"

#include "http/http_service_factory_impl.hpp"

namespace terrane::common {

void HttpServiceFactory::setUserDefined(const std::shared_ptr<HttpServiceInterface>& custom) {
    HttpServiceFactoryImpl::processWide().setUserDefined(custom);
}

optional<std::shared_ptr<HttpServiceInterface>> HttpServiceFactory::getInstance() {
    return HttpServiceFactoryImpl::processWide().getInstance();
}

}  // namespace terrane::common
