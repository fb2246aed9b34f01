// Pack verification: a downloaded file becomes the pack only once its size and MD5 checksum
// match what the catalogue published.
//
// The hashing runs on the worker thread and blocks it for as long as it takes; nothing else of
// the service may change the pack meanwhile, which is what makes the rename below safe.

#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "offline/offline_service_worker.hpp"
#include "offline/offline_storage.hpp"
#include "offline/pack_paths.hpp"
#include "terrane/util/md5.hpp"
#include "util/digest_cache.hpp"
#include "util/file_io.hpp"

namespace terrane::common {

namespace fs = std::filesystem;

namespace {

// The download file's name without its ".tmp": where the verified pack lives. A path without
// it is the pack file itself.
fs::path packFileOf(const std::string& downloadFile) {
    if (downloadFile.ends_with(downloadFileSuffix)) {
        return downloadFile.substr(0, downloadFile.size() - downloadFileSuffix.size());
    }
    return downloadFile;
}

}  // namespace

void OfflineServiceWorker::verifyPackDownload(PackKey key) {
    // Left for the next start during shutdown: the header record still says "not verified", so
    // the file is checked then, and hashing a large pack now would only hold up the shutdown.
    if (shuttingDown()) {
        return;
    }
    auto context = beginAnswer(key);
    if (!context) {
        return;
    }
    OfflineDataPackHolder& holder = context->holder;
    const std::string downloadFile = holder.path();

    std::error_code error;
    const std::uintmax_t size = fs::file_size(downloadFile, error);
    if (error) {
        return failPack(*context, OfflineDataErrorCode::Filesystem, error.message());
    }
    if (size != context->pack.bytes) {
        if (size > context->pack.bytes) {
            // Never worth keeping, nor resuming: the file and its record go, so the next start
            // does not take it up again.
            removeDownloadFiles(*context);
            std::error_code ignored;
            fs::remove(headerFilePath(downloadFile), ignored);
        }
        // Not worth hashing: it cannot match.
        return failPack(*context, OfflineDataErrorCode::Corrupt,
                        std::string(unexpectedSizeMessage));
    }
    holder.setVerifiedBytes(size);
    holder.headers.bytes = size;

    const auto digest = util::md5File(downloadFile);
    if (!digest) {
        // The file went away or became unreadable after it was measured.
        return failPack(*context, OfflineDataErrorCode::Filesystem, digest.error());
    }
    // Exact text: the catalogue publishes lower-case digests, as md5File makes them.
    if (*digest != context->pack.md5_checksum) {
        return failPack(*context, OfflineDataErrorCode::Corrupt, "Failed to verify checksum");
    }

    // A pack file found at start-up without a record vouching for it is checked where it is.
    const fs::path packFile = packFileOf(downloadFile);
    if (packFile != fs::path(downloadFile)) {
        // Through the digest cache, so that the pack is still known by the digest just checked.
        if (const int failure =
                util::DigestCache::instance().rename(downloadFile, packFile.string());
            failure != 0) {
            return failPack(*context, OfflineDataErrorCode::Filesystem,
                            std::generic_category().message(failure));
        }
    }
    holder.headers.verified = true;
    if (auto written = base::io::writeFileAtomically(headerFilePath(packFile),
                                                     serializePackHeaders(holder.headers));
        !written) {
        return failPack(*context, OfflineDataErrorCode::Filesystem, std::move(written.error()));
    }
    // The lease the download granted may have run out while the file was checked.
    if (holder.isExpired()) {
        holder.setExpired(packFile.string());
    } else {
        holder.setAvailable(packFile.string());
    }
    notifyContext(*context);
}

}  // namespace terrane::common
