// Pack download: the public downloadPack, the start of a full download, its progress and its end,
// which hands the file to verification.

#include <sys/statvfs.h>

#include <cstdlib>
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

bool isDownloadSuccess(std::int64_t code) {
    return code == 200 || code == 204 || code == 206;
}

}  // namespace

void OfflineServiceWorker::notifyContext(const Context& context) {
    notifyPack(context.domain, context.region.metadata, context.holder.pack());
}

void OfflineServiceWorker::failPack(Context& context, OfflineDataErrorCode code,
                                    std::string message) {
    context.holder.setError(OfflineDataError{code, std::move(message)});
    notifyContext(context);
}

void OfflineServiceWorker::downloadPack(OfflineDataDomain domain,
                                        OfflineDataRegionMetadata&& region) {
    const optional<OfflineDataPackMetadata> asked =
        domain == OfflineDataDomain::Maps ? region.mapPack : region.navigationPack;
    auto context = beginPackOperation(domain, std::move(region));
    if (!context) {
        return;
    }
    if (context->region.metadata.revision == 0) {
        // Revision directories are numbered from 1: a pack stored under 0 would never be found
        // again at the next start.
        return failPack(*context, OfflineDataErrorCode::InvalidResponse,
                        "Revision 0 of offline region '" + context->region.metadata.id +
                            "' cannot be stored: revisions are numbered from 1");
    }
    if (asked && adoptRepublishedPack(*context, *asked)) {
        return downloadPackInternal(*context);
    }
    switch (context->holder.status()) {
        case OfflineDataPackStatus::Pending:
        case OfflineDataPackStatus::Downloading:
        case OfflineDataPackStatus::Verifying:
        case OfflineDataPackStatus::Available:
            // Already there, or on its way.
            return;
        case OfflineDataPackStatus::Incomplete:
        case OfflineDataPackStatus::Errored:
        case OfflineDataPackStatus::Deleted:
            if (refuseExchangeAtShutdown(*context)) {
                return;
            }
            return downloadPackInternal(*context);
        case OfflineDataPackStatus::Expired:
            if (refuseExchangeAtShutdown(*context)) {
                return;
            }
            // With a stored file and entity tag the server may simply renew the lease. A file
            // that is gone (a re-authorisation found the pack changed) can only be fetched anew.
            if (!context->holder.path().empty() && !context->holder.headers.etag.empty() &&
                fs::exists(context->holder.path())) {
                return reauthPackInternal(*context);
            }
            return downloadPackInternal(*context);
        case OfflineDataPackStatus::Deleting:
            return undeletePackInternal(*context);
    }
    std::abort();
}

namespace {

// What identifies a pack's file: another address, size or checksum is another file.
bool isSameFile(const OfflineDataPackMetadata& a, const OfflineDataPackMetadata& b) {
    return a.url == b.url && a.bytes == b.bytes && a.md5_checksum == b.md5_checksum;
}

}  // namespace

bool OfflineServiceWorker::adoptRepublishedPack(Context& context,
                                                const OfflineDataPackMetadata& asked) {
    switch (context.holder.status()) {
        case OfflineDataPackStatus::Incomplete:
        case OfflineDataPackStatus::Errored:
        case OfflineDataPackStatus::Deleted:
        case OfflineDataPackStatus::Expired:
            break;
        default:
            // In use or under way: the stored description is the one its file was fetched by.
            return false;
    }
    if (asked.format != context.pack.format || isSameFile(asked, context.pack) ||
        refuseExchangeAtShutdown(context)) {
        return false;
    }
    // The revision was republished: whatever was fetched by the old description is of no use,
    // and checking a new file against the old checksum could never succeed.
    context.pack = asked;
    removeDownloadFiles(context);
    // An Expired pack's file, too: its record must never vouch for it under the new checksum.
    const PackPaths paths = packPaths(root, context);
    std::error_code ignored;
    fs::remove(paths.headerFile, ignored);
    fs::remove(paths.packFile, ignored);
    return true;
}

bool OfflineServiceWorker::refuseExchangeAtShutdown(const Context& context) {
    if (!shuttingDown()) {
        return false;
    }
    // Its answer would arrive after the worker has gone; the pack stays as it is, for the next
    // start to take up.
    logMessage("Skipped download of %s pack of revision %u of offline region '%s': %s",
               toString(context.domain).c_str(), context.region.metadata.revision,
               context.region.metadata.id.c_str(), "The offline service is shutting down");
    return true;
}

void OfflineServiceWorker::downloadPackInternal(Context& context) {
    OfflineDataPackHolder& holder = context.holder;
    const PackPaths paths = packPaths(root, context);

    std::error_code error;
    fs::create_directories(paths.revisionDirectory, error);
    if (error) {
        return failPack(context, OfflineDataErrorCode::Filesystem, error.message());
    }
    if (auto written = base::io::writeFileAtomically(paths.metadataFile,
                                                     serializeMetadata(context.region.metadata));
        !written) {
        return failPack(context, OfflineDataErrorCode::Filesystem, std::move(written.error()));
    }

    // Decided before setPending clears the error: resuming a partial file that failed its check
    // would only produce the same corrupt file again.
    const bool resume = !(holder.status() == OfflineDataPackStatus::Errored && holder.error() &&
                          holder.error()->code == OfflineDataErrorCode::Corrupt);

    holder.setPending(paths.downloadFile.string(), 0);
    notifyContext(context);
    const PackKey key = context.key();

    HttpServiceInterface* const http = acquireHttpService();
    if (http == nullptr) {
        return failPack(context, OfflineDataErrorCode::Connection,
                        std::string(httpServiceUnavailableMessage));
    }
    if (!checkFreeSpace(context, resume)) {
        return;
    }

    ++activeDownloads;
    fs::create_directories(paths.downloadFile.parent_path(), error);
    if (error) {
        // The download counted above is deliberately left standing: nothing will ever take it
        // back, so the service never reports itself idle again after this failure.
        return failPack(context, OfflineDataErrorCode::Filesystem,
                        "Could not create download directory");
    }
    // A record of a download under way, so that an interrupted one is found again at the next
    // start (as Incomplete, resumable and deletable) instead of lying there unknown.
    if (auto written = base::io::writeFileAtomically(
            paths.headerFile, serializePackHeaders(OfflineDataPackHeaders{}));
        !written) {
        --activeDownloads;
        return failPack(context, OfflineDataErrorCode::Filesystem, std::move(written.error()));
    }

    HttpRequest request;
    request.method = HttpMethod::Get;
    request.url = formatURL(context.pack.url);
    DownloadOptions options(std::move(request), paths.downloadFile.string(), resume);
    // A server that sends more than the catalogue promised is stopped there, not stored.
    options.maxBytes = context.pack.bytes;
    options.recordDigest = true;  // verification asks md5File right after
    holder.downloadId =
        http->download(std::move(options), [proxy = proxy, key](DownloadStatus&& status) {
            proxy.post(TaskPriority::Normal, &OfflineServiceWorker::updatePackDownloadProgress, key,
                       std::move(status));
        });
}

bool OfflineServiceWorker::checkFreeSpace(Context& context, bool resume) {
    const PackPaths paths = packPaths(root, context);
    struct statvfs fileSystem {};
    if (::statvfs(paths.revisionDirectory.c_str(), &fileSystem) != 0) {
        return true;
    }
    const std::uint64_t available =
        static_cast<std::uint64_t>(fileSystem.f_bavail) * fileSystem.f_frsize;

    std::uint64_t held = 0;
    if (resume) {
        std::error_code error;
        const std::uintmax_t partial = fs::file_size(paths.partialFile, error);
        if (!error) {
            held = partial;
        }
    }
    const std::uint64_t needed = context.pack.bytes > held ? context.pack.bytes - held : 0;
    if (needed <= available) {
        return true;
    }
    failPack(context, OfflineDataErrorCode::Filesystem,
             "Not enough disk space: " + std::to_string(needed) + " bytes needed, " +
                 std::to_string(available) + " bytes available");
    return false;
}

void OfflineServiceWorker::updatePackDownloadProgress(PackKey key, DownloadStatus status) {
    auto context = beginAnswer(key);
    if (!context) {
        return;
    }
    switch (status.state) {
        case DownloadState::Pending:
            return;
        case DownloadState::Downloading:
            if (status.receivedBytes > context->pack.bytes) {
                // An HTTP service that does not enforce the cap: stop the transfer here.
                return abandonOversizedDownload(*context);
            }
            // Not a setter: the key this download's callback carries must stay valid.
            context->holder.updateProgress(status.receivedBytes);
            return notifyContext(*context);
        case DownloadState::Failed:
        case DownloadState::Finished:
            return finishPackDownload(*context, std::move(status));
    }
}

void OfflineServiceWorker::abandonOversizedDownload(Context& context) {
    OfflineDataPackHolder& holder = context.holder;
    --activeDownloads;
    ++pendingCancellations;
    const auto confirmed = [proxy = proxy](bool) {
        proxy.post(TaskPriority::Normal, &OfflineServiceWorker::finishCancelPackDownloadInternal);
    };
    if (HttpServiceInterface* const http = acquireHttpService()) {
        http->cancelRequest(holder.downloadId, confirmed);
    } else {
        confirmed(false);
    }
    holder.downloadId = 0;
    removeDownloadFiles(context);
    failPack(context, OfflineDataErrorCode::Corrupt, std::string(unexpectedSizeMessage));
}

void OfflineServiceWorker::removeDownloadFiles(const Context& context) {
    const PackPaths paths = packPaths(root, context);
    std::error_code ignored;
    for (const fs::path* file : {&paths.downloadFile, &paths.partialFile, &paths.resumeDataFile}) {
        fs::remove(*file, ignored);
    }
}

void OfflineServiceWorker::finishPackDownload(Context& context, DownloadStatus&& status) {
    OfflineDataPackHolder& holder = context.holder;
    --activeDownloads;
    holder.downloadId = 0;

    if (status.state == DownloadState::Failed) {
        if (!status.error) {
            // A service that reports failure without saying why; the transfer is what failed.
            return failPack(context, OfflineDataErrorCode::Connection, "Download failed");
        }
        switch (status.error->code) {
            case DownloadErrorCode::NetworkError:
                return failPack(context, OfflineDataErrorCode::Connection,
                                redactAccessToken(status.error->message));
            case DownloadErrorCode::FileSystemError:
                return failPack(context, OfflineDataErrorCode::Filesystem,
                                redactAccessToken(status.error->message));
            case DownloadErrorCode::SizeExceeded:
                removeDownloadFiles(context);
                return failPack(context, OfflineDataErrorCode::Corrupt,
                                std::string(unexpectedSizeMessage));
        }
        std::abort();
    }

    if (status.httpResult && !*status.httpResult) {
        return failPack(context, OfflineDataErrorCode::Connection,
                        redactAccessToken(status.httpResult->error().message));
    }
    // A finished download without any response head is treated as a status of 0: not a success.
    const HttpResponseData response = status.httpResult ? **status.httpResult : HttpResponseData{};
    if (!isDownloadSuccess(response.code)) {
        OfflineDataError error = extractHTTPError(response);
        error.message = redactAccessToken(error.message);
        holder.setError(std::move(error));
        return notifyContext(context);
    }

    const OfflineDataPackHeaders lease = extractHeaders(response);
    holder.headers.expires = lease.expires;
    holder.headers.max_age = lease.max_age;
    holder.headers.etag = lease.etag;
    // The verification measures the file itself; until then this is what the answer carried.
    holder.headers.bytes = response.data.size();
    holder.headers.complete = true;
    holder.headers.verified = false;

    const PackPaths paths = packPaths(root, context);
    if (auto written =
            base::io::writeFileAtomically(paths.headerFile, serializePackHeaders(holder.headers));
        !written) {
        return failPack(context, OfflineDataErrorCode::Filesystem, std::move(written.error()));
    }
    holder.setVerifying();
    notifyContext(context);
    proxy.post(TaskPriority::Normal, &OfflineServiceWorker::verifyPackDownload, context.key());
}

}  // namespace terrane::common
