#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "terrane/expected.hpp"
#include "terrane/http/http_request.hpp"
#include "terrane/http/http_response.hpp"

namespace terrane::common {

// The values cross the platform boundary as plain integers, so they must never be renumbered.
enum class DownloadState : std::uint32_t {
    Pending = 0,      // the first report of every download
    Downloading = 1,  // bytes are arriving, or the download resumed
    Failed = 2,       // final; the status carries an error
    Finished = 3,     // final; the file is at the destination path
};

// After a final state the service never reports on that download again.
constexpr bool isFinal(DownloadState state) {
    return state == DownloadState::Failed || state == DownloadState::Finished;
}

enum class DownloadErrorCode : std::uint32_t {
    // The destination directory is missing (reported as "not writable"), or the finished file
    // could not be moved into place.
    FileSystemError = 0,
    // The transfer failed or timed out.
    NetworkError = 1,
    // The body grew beyond DownloadOptions::maxBytes, or the response announced more; nothing
    // of it is kept.
    SizeExceeded = 2,
};

struct DownloadError {
    DownloadErrorCode code = DownloadErrorCode::FileSystemError;
    std::string message;

    friend bool operator==(const DownloadError&, const DownloadError&) = default;
};

// A file download: the request to fetch and where the finished file must end up.
struct DownloadOptions {
    HttpRequest request;
    std::string localPath;
    // Continue from resume data stored for this destination and URL, when the service has valid
    // data; otherwise start afresh.
    bool resume = false;
    // The most bytes the finished file may have. A service that knows it stops the transfer as
    // soon as the body would grow beyond it, or the response head announces more, and fails with
    // SizeExceeded; empty: no limit.
    optional<std::uint64_t> maxBytes;
    // Take the MD5 of the bytes as they land and keep it for the finished file, so that
    // util::md5File answers for it without reading it again. It costs about a core's worth of
    // hashing while the transfer runs, so ask for it only when the file will be verified.
    bool recordDigest = false;

    DownloadOptions() = default;

    DownloadOptions(HttpRequest givenRequest, std::string givenLocalPath, bool givenResume = false)
        : request(std::move(givenRequest)),
          localPath(std::move(givenLocalPath)),
          resume(givenResume) {}

    friend bool operator==(const DownloadOptions&, const DownloadOptions&) = default;
};

// The state of one download. A service keeps one such record per download, updates it on every
// event and delivers a copy each time.
struct DownloadStatus {
    // The id download() returned.
    std::uint64_t downloadId = 0;
    DownloadState state = DownloadState::Pending;
    // Set only with DownloadState::Failed.
    optional<DownloadError> error;
    // Set once the expected size is known.
    optional<std::uint64_t> totalBytes;
    std::uint64_t receivedBytes = 0;
    // A copy of what was asked.
    DownloadOptions downloadOptions;
    // The response head (headers and code, no body) once a response arrived.
    optional<HttpResult> httpResult;

    DownloadStatus() = default;

    DownloadStatus(std::uint64_t givenDownloadId, DownloadState givenState,
                   optional<DownloadError> givenError, optional<std::uint64_t> givenTotalBytes,
                   std::uint64_t givenReceivedBytes, DownloadOptions givenDownloadOptions,
                   optional<HttpResult> givenHttpResult)
        : downloadId(givenDownloadId),
          state(givenState),
          error(std::move(givenError)),
          totalBytes(givenTotalBytes),
          receivedBytes(givenReceivedBytes),
          downloadOptions(std::move(givenDownloadOptions)),
          httpResult(std::move(givenHttpResult)) {}

    // The short form applications use; id, state and byte count keep their defaults.
    DownloadStatus(optional<DownloadError> givenError, optional<std::uint64_t> givenTotalBytes,
                   DownloadOptions givenDownloadOptions, optional<HttpResult> givenHttpResult)
        : error(std::move(givenError)),
          totalBytes(givenTotalBytes),
          downloadOptions(std::move(givenDownloadOptions)),
          httpResult(std::move(givenHttpResult)) {}

    friend bool operator==(const DownloadStatus&, const DownloadStatus&) = default;
};

}  // namespace terrane::common
