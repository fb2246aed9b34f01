// The region catalogue on the worker: the listing request, its answer, and the expansion of
// "terrane://offline-data/" addresses against this worker's endpoint and access token.

#include <string>
#include <utility>
#include <vector>

#include "offline/offline_service_worker.hpp"
#include "offline/region_catalogue.hpp"

namespace terrane::common {

namespace {

// Every catalogue answer goes out through here, so that no failure text reaches the caller with
// the access token in it: a transport error may quote the request URL, and an error body or a
// region entry may echo whatever the server was sent.
void answer(const AvailableRegionsCallback& callback, AvailableRegionsResult result,
            std::string_view accessToken) {
    if (!result) {
        result.error().message = redactSecret(result.error().message, accessToken);
    }
    callback(std::move(result));
}

}  // namespace

void OfflineServiceWorker::listAvailableRegions(AvailableRegionsCallback callback) {
    if (!callback) {
        // Nobody would hear the answer, so no service is started and the endpoint not troubled.
        return;
    }
    if (shuttingDown()) {
        // The answer could only arrive after the worker has gone, and would be dropped then.
        return;
    }
    // Not a pack operation: listing neither marks the worker busy nor delays onIdle.
    requestAvailableRegions(acquireHttpService(), std::move(callback));
}

void OfflineServiceWorker::requestAvailableRegions(HttpServiceInterface* http,
                                                   AvailableRegionsCallback callback) {
    if (!callback) {
        return;
    }
    if (http == nullptr) {
        answer(callback,
               unexpected(OfflineDataError{OfflineDataErrorCode::Connection,
                                           std::string(httpServiceUnavailableMessage)}),
               accessToken);
        return;
    }
    http->request(HttpRequest(formatURL(catalogueAddress(username))),
                  [proxy = proxy, callback = std::move(callback)](HttpResponse&& response) mutable {
                      // Dropped, callback and all, when the worker has gone meanwhile.
                      proxy.post(TaskPriority::Normal,
                                 &OfflineServiceWorker::receiveAvailableRegions,
                                 std::move(response), std::move(callback));
                  });
}

std::string OfflineServiceWorker::formatURL(const std::string& url) const {
    return expandOfflineDataURL(url, baseURL, accessToken);
}

void OfflineServiceWorker::receiveAvailableRegions(HttpResponse response,
                                                   AvailableRegionsCallback callback) {
    if (!callback) {
        return;
    }
    if (!response.result) {
        answer(callback,
               unexpected(OfflineDataError{OfflineDataErrorCode::Connection,
                                           std::move(response.result.error().message)}),
               accessToken);
        return;
    }
    std::vector<std::string> unsafeIds;
    auto regions = parseAvailableRegionsList(*response.result, &unsafeIds);
    for (const auto& id : unsafeIds) {
        // Built by hand rather than through "%s" so that an id with a NUL byte is shown whole.
        sendLogMessage("Skipping offline region '" + escapeControlCharacters(id) +
                       "': Region ID must be a valid directory name");
    }
    answer(callback, std::move(regions), accessToken);
}

std::string OfflineServiceWorker::redactAccessToken(const std::string& message) const {
    return redactSecret(message, accessToken);
}

}  // namespace terrane::common
