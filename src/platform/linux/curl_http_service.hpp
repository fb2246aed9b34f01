#pragma once

#include <cstdint>
#include <memory>

#include "terrane/http/http_service_interface.hpp"

namespace terrane::common {

class CurlEngine;

// The Linux platform's HttpServiceInterface, over libcurl. Every operation hands its work to the
// service's engine (one thread, one multi handle) and returns at once; every callback runs on the
// engine thread. cancelRequest from inside a callback takes effect, and answers, before it
// returns.
//
// keepCompression is not supported: bodies always arrive decoded. Every exchange is held to the
// process-wide TransferLimits (connect timeout, stall limit), whatever its own timeout says.
//
// Lifetime: HttpServiceFactory hands the service out as the platform default; when its last
// holder lets go, the engine thread is stopped and joined (exchanges still in flight end without
// a final callback). The last holder must not be one of the service's own callbacks.
class CurlHttpService final : public HttpServiceInterface {
  public:
    CurlHttpService();
    ~CurlHttpService() override;
    CurlHttpService(const CurlHttpService&) = delete;
    CurlHttpService& operator=(const CurlHttpService&) = delete;

    // Applies to transfers started after it (8 until then); 0 lifts the cap. Any thread.
    void setMaxRequestsPerHost(std::uint8_t max) override;
    std::uint64_t request(HttpRequest&& request, HttpResponseCallback&& callback) override;
    void cancelRequest(std::uint64_t id, ResultCallback&& callback) override;
    bool supportsKeepCompression() override;
    std::uint64_t download(DownloadOptions&& options, DownloadStatusCallback&& callback) override;

  private:
    std::unique_ptr<CurlEngine> engine_;
};

}  // namespace terrane::common
