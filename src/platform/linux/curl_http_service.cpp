#include "platform/linux/curl_http_service.hpp"

#include <utility>

#include "http/platform_http_service.hpp"
#include "platform/linux/curl_engine.hpp"
#include "terrane/http/request_id.hpp"

namespace terrane::common {

CurlHttpService::CurlHttpService() : engine_(std::make_unique<CurlEngine>()) {
}

CurlHttpService::~CurlHttpService() = default;

void CurlHttpService::setMaxRequestsPerHost(std::uint8_t max) {
    engine_->post([engine = engine_.get(), max] { engine->setMaxHostConnections(max); });
}

std::uint64_t CurlHttpService::request(HttpRequest&& request, HttpResponseCallback&& callback) {
    const std::uint64_t id = nextHttpRequestId();
    engine_->post([engine = engine_.get(), id, request = std::move(request),
                   callback = std::move(callback)]() mutable {
        engine->startRequest(id, std::move(request), std::move(callback));
    });
    return id;
}

void CurlHttpService::cancelRequest(std::uint64_t id, ResultCallback&& callback) {
    if (engine_->isEngineThread()) {
        engine_->cancel(id, std::move(callback));
        return;
    }
    engine_->post([engine = engine_.get(), id, callback = std::move(callback)]() mutable {
        engine->cancel(id, std::move(callback));
    });
}

bool CurlHttpService::supportsKeepCompression() {
    return false;
}

std::uint64_t CurlHttpService::download(DownloadOptions&& options,
                                        DownloadStatusCallback&& callback) {
    const std::uint64_t id = nextHttpRequestId();
    engine_->post([engine = engine_.get(), id, options = std::move(options),
                   callback = std::move(callback)]() mutable {
        engine->startDownload(id, std::move(options), std::move(callback));
    });
    return id;
}

std::shared_ptr<HttpServiceInterface> createPlatformHttpService() {
    return std::make_shared<CurlHttpService>();
}

}  // namespace terrane::common
