// Lease extension and re-authorisation: conditional HEAD requests that keep a stored pack usable
// without downloading it again, as long as the server still has the same entity.

#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "offline/http_headers.hpp"
#include "offline/offline_service_worker.hpp"
#include "offline/offline_storage.hpp"
#include "offline/pack_paths.hpp"
#include "offline/region_catalogue.hpp"
#include "util/file_io.hpp"

namespace terrane::common {

namespace fs = std::filesystem;

namespace {

constexpr const char* packChangedMessage = "The offline pack changed and needs to be redownloaded";

bool isConditionalSuccess(std::int64_t code) {
    return code == 200 || code == 204 || code == 304;
}

// A 304 to If-None-Match is the server's own word that the stored tag still matches, whatever
// tag (if any) it repeats; a full answer must name the same entity, weakly compared, since
// servers that compress turn strong tags into weak ones.
bool isSameEntity(const HttpResponseData& response, const std::string& answeredTag,
                  const std::string& storedTag) {
    return response.code == 304 || weakEntityTagsMatch(answeredTag, storedTag);
}

}  // namespace

HttpRequest OfflineServiceWorker::conditionalRequest(const Context& context) const {
    HttpRequest request;
    request.method = HttpMethod::Head;
    request.url = formatURL(context.pack.url);
    request.headers.emplace("If-None-Match", context.holder.headers.etag);
    // The tag stored is that of the file as downloaded, uncompressed; a compressed variant would
    // carry another.
    request.headers.emplace("Accept-Encoding", "identity");
    return request;
}

void OfflineServiceWorker::extendPackDownloadLease(PackKey key) {
    // Posted at start-up; a service already shutting down starts no new exchange: the lease is
    // renewed after the next start.
    if (shuttingDown()) {
        return;
    }
    auto context = beginAnswer(key);
    if (!context) {
        return;
    }
    HttpServiceInterface* const http = acquireHttpService();
    if (http == nullptr) {
        // The lease simply runs out at its old time; a later downloadPack re-authorises.
        return;
    }
    ++activeDownloads;
    context->holder.downloadId =
        http->request(conditionalRequest(*context), [proxy = proxy, key](HttpResponse&& response) {
            proxy.post(TaskPriority::Normal, &OfflineServiceWorker::finishExtendPackDownloadLease,
                       key, std::move(response));
        });
}

void OfflineServiceWorker::finishExtendPackDownloadLease(PackKey key, HttpResponse response) {
    auto context = loadContext(key);
    if (!context) {
        if (context.error().reason == ContextError::Reason::Outdated) {
            // Unlike a download, a lease request is never cancelled when its pack moves on (a
            // deletion leaves it running), so nobody else gives back the count taken for it.
            markBusy();
            --activeDownloads;
        }
        logContextError(context.error());
        return;
    }
    markBusy();
    --activeDownloads;
    OfflineDataPackHolder& holder = context->holder;
    holder.downloadId = 0;

    std::string failure;
    if (!response.result) {
        failure = response.result.error().message;
    } else if (!isConditionalSuccess(response.result->code)) {
        failure = extractHTTPError(*response.result).message;
    } else if (const auto lease = extractHeaders(*response.result);
               !isSameEntity(*response.result, lease.etag, holder.headers.etag)) {
        failure = packChangedMessage;
    } else {
        holder.headers.expires = lease.expires;
        holder.headers.max_age = lease.max_age;
        if (!holder.isExpired()) {
            // A record that cannot be rewritten keeps the old lease on disk: the pack is renewed
            // again, or re-authorised, after the next start. Not worth a word.
            (void)base::io::rewriteFile(packPaths(root, *context).headerFile,
                                        serializePackHeaders(holder.headers));
        }
        return;
    }
    logMessage(
        "Failed to extend expiration time of %s pack of revision %u of offline region "
        "'%s': %s",
        toString(context->domain).c_str(), context->region.metadata.revision,
        context->region.metadata.id.c_str(), redactAccessToken(failure).c_str());
}

void OfflineServiceWorker::reauthPackInternal(Context& context) {
    HttpServiceInterface* const http = acquireHttpService();
    if (http == nullptr) {
        return failPack(context, OfflineDataErrorCode::Connection,
                        std::string(httpServiceUnavailableMessage));
    }
    OfflineDataPackHolder& holder = context.holder;
    holder.setDownloading(holder.bytes());
    notifyContext(context);
    ++activeDownloads;
    const PackKey key = context.key();
    holder.downloadId =
        http->request(conditionalRequest(context), [proxy = proxy, key](HttpResponse&& response) {
            proxy.post(TaskPriority::Normal, &OfflineServiceWorker::finishPackReauth, key,
                       std::move(response));
        });
}

void OfflineServiceWorker::finishPackReauth(PackKey key, HttpResponse response) {
    auto context = beginAnswer(key);
    if (!context) {
        return;
    }
    --activeDownloads;
    OfflineDataPackHolder& holder = context->holder;
    holder.downloadId = 0;

    optional<OfflineDataError> error;
    if (!response.result) {
        error = OfflineDataError{OfflineDataErrorCode::Connection,
                                 redactAccessToken(response.result.error().message)};
    } else if (!isConditionalSuccess(response.result->code)) {
        error = extractHTTPError(*response.result);
        error->message = redactAccessToken(error->message);
    } else if (const auto lease = extractHeaders(*response.result);
               !isSameEntity(*response.result, lease.etag, holder.headers.etag)) {
        error = OfflineDataError{OfflineDataErrorCode::Corrupt, packChangedMessage};
    } else {
        holder.headers.expires = lease.expires;
        holder.headers.max_age = lease.max_age;
        if (!holder.isExpired()) {
            // The pack is usable again whether or not the renewed lease reaches the disk.
            (void)base::io::rewriteFile(packPaths(root, *context).headerFile,
                                        serializePackHeaders(holder.headers));
            holder.setAvailable();
            return notifyContext(*context);
        }
    }

    // The pack may no longer be used: its file goes. The stored path and entity tag stay, so the
    // next downloadPack asks the server again rather than downloading in full.
    std::error_code removal;
    fs::remove(holder.path(), removal);
    if (removal) {
        logMessage("Failed to delete %s pack of revision %u of offline region '%s': %s",
                   toString(context->domain).c_str(), context->region.metadata.revision,
                   context->region.metadata.id.c_str(), removal.message().c_str());
    }
    holder.setExpired(std::move(error));
    notifyContext(*context);
}

}  // namespace terrane::common
