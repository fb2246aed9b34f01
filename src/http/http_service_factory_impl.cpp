#include "http/http_service_factory_impl.hpp"

#include <utility>

#include "http/platform_http_service.hpp"

namespace terrane::common {

HttpServiceFactoryImpl::HttpServiceFactoryImpl(PlatformDefaultCreator createPlatformDefault)
    : createPlatformDefault_(std::move(createPlatformDefault)) {
}

HttpServiceFactoryImpl& HttpServiceFactoryImpl::processWide() {
    // A function-local static rather than a namespace-scope one: a static initialiser elsewhere
    // that already asks for a service must not find the registry unconstructed.
    static HttpServiceFactoryImpl registry{&createPlatformHttpService};
    return registry;
}

void HttpServiceFactoryImpl::setUserDefined(const std::shared_ptr<HttpServiceInterface>& custom) {
    std::lock_guard lock(mutex_);
    singleton_ = custom;
}

optional<std::shared_ptr<HttpServiceInterface>> HttpServiceFactoryImpl::getInstance() {
    std::lock_guard lock(mutex_);
    if (auto service = singleton_.lock()) {
        return service;
    }
    // Creating under the lock keeps two racing callers from each getting a platform default of
    // their own.
    auto service = createPlatformDefault_ ? createPlatformDefault_() : nullptr;
    if (!service) {
        return nullopt;
    }
    singleton_ = service;
    return service;
}

}  // namespace terrane::common
