#pragma once

#include <memory>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/http/http_service_interface.hpp"

namespace terrane::common {

// Chooses the HttpServiceInterface the whole process uses: the application's own service while one
// is in force, else the platform default.
//
// The factory only remembers the service weakly and never keeps one alive by itself: a service
// stays in force exactly as long as somebody holds it. Once the application releases its service,
// the next getInstance() falls back to a fresh platform default; a platform default released by
// every holder is likewise created anew on the next call.
//
// Threads: both operations may be called from any thread; they serialise on one process-wide
// mutex. The returned pointer is the caller's to keep and use without any lock.
class TERRANE_EXPORT HttpServiceFactory {
  public:
    HttpServiceFactory() = delete;

    // Puts custom in force without taking ownership of it. An empty pointer clears the choice, so
    // that the next getInstance() falls back to the platform default.
    static void setUserDefined(const std::shared_ptr<HttpServiceInterface>& custom);

    // The service in force, creating the platform default when none is alive. Empty when there is
    // no service in force and this platform has no default service.
    static optional<std::shared_ptr<HttpServiceInterface>> getInstance();
};

}  // namespace terrane::common
