#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "terrane/expected.hpp"
#include "terrane/http/http_service_interface.hpp"

namespace terrane::common {

// A weak registry of the HTTP service in force, with the platform default as fallback. The
// process-wide registry behind HttpServiceFactory is processWide(); other instances exist so that
// the registry can be exercised with a platform default of one's choosing.
//
// Threads: every operation may be called from any thread and holds the registry's mutex for its
// whole duration, creation of the platform default included.
class HttpServiceFactoryImpl {
  public:
    using PlatformDefaultCreator = std::function<std::shared_ptr<HttpServiceInterface>()>;

    // createPlatformDefault may return an empty pointer (no platform service). It is called under
    // the registry's mutex and must not call back into the registry.
    explicit HttpServiceFactoryImpl(PlatformDefaultCreator createPlatformDefault);

    HttpServiceFactoryImpl(const HttpServiceFactoryImpl&) = delete;
    HttpServiceFactoryImpl& operator=(const HttpServiceFactoryImpl&) = delete;

    // The registry behind HttpServiceFactory, created on first use with the platform's own
    // service as default.
    static HttpServiceFactoryImpl& processWide();

    // Remembers custom weakly; an empty pointer clears the slot.
    void setUserDefined(const std::shared_ptr<HttpServiceInterface>& custom);

    // The live service in the slot; else a new platform default, remembered weakly, so the
    // caller's reference is its only owner; else empty.
    optional<std::shared_ptr<HttpServiceInterface>> getInstance();

  private:
    std::mutex mutex_;
    std::weak_ptr<HttpServiceInterface> singleton_;
    PlatformDefaultCreator createPlatformDefault_;
};

}  // namespace terrane::common
