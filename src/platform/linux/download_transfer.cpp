#include "platform/linux/download_transfer.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/linux/curl_error_mapping.hpp"
#include "terrane/log/log.hpp"
#include "util/digest_cache.hpp"

namespace terrane::common {

namespace {

constexpr const char kTimedOut[] = "Request timed out.";
// A download never takes part in content negotiation: the server's byte ranges, lengths and
// entity tags must describe the file itself, or nothing can be resumed or measured.
constexpr const char kIdentityEncoding[] = "Accept-Encoding: identity";
// Partial files and resume data are nobody else's business.
constexpr mode_t kPrivateFileMode = 0600;
// Fewer, larger reads and writes: a fast loopback transfer spends its time in system calls
// otherwise. libcurl hands the body over in pieces of 16 KiB whatever it reads at once, so the
// pieces are gathered up to kWriteBytes before they go to the file.
constexpr long kReceiveBufferSize = 512 * 1024;
constexpr std::size_t kWriteBytes = 1024 * 1024;
// Every this many bytes written, their write-back to the disk is started (without waiting for
// it), so that the flush that ends a download finds little left to write: a gigabyte left dirty
// in the page cache would hold the engine for the whole write at the end.
constexpr std::uint64_t kWritebackBytes = 8 * 1024 * 1024;

std::string systemErrorText(int error) {
    return std::generic_category().message(error);
}

optional<std::uint64_t> parseNumber(std::string_view text) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return nullopt;
    }
    return value;
}

struct ContentRange {
    std::uint64_t first = 0;
    optional<std::uint64_t> completeLength;
};

// "bytes 100-999/1000" or "bytes 100-999/*".
optional<ContentRange> parseContentRange(std::string_view value) {
    if (!value.starts_with("bytes ")) {
        return nullopt;
    }
    value.remove_prefix(6);
    const auto dash = value.find('-');
    const auto slash = value.find('/');
    if (dash == std::string_view::npos || slash == std::string_view::npos || slash < dash) {
        return nullopt;
    }
    const auto first = parseNumber(value.substr(0, dash));
    if (!first) {
        return nullopt;
    }
    ContentRange range{*first, parseNumber(value.substr(slash + 1))};
    return range;
}

bool isSuccess(std::int64_t code) {
    return code >= 200 && code < 300;
}

std::string sizeExceededText(std::uint64_t maxBytes) {
    return "Download exceeds the limit of " + std::to_string(maxBytes) + " bytes.";
}

}  // namespace

// Shared by the transfer and the deliveries it queued, so that a report already queued is dropped
// once the download is cancelled, and the callback outlives the transfer while a delivery runs.
struct DownloadTransfer::CallbackSlot {
    DownloadStatusCallback callback;
    bool closed = false;
};

DownloadTransfer::DownloadTransfer(std::uint64_t id, DownloadOptions options,
                                   DownloadStatusCallback callback, std::string userAgent,
                                   DeliveryQueue& deliveries)
    : id_(id),
      slot_(std::make_shared<CallbackSlot>(std::move(callback))),
      userAgent_(std::move(userAgent)),
      deliveries_(deliveries),
      partialPath_(partialFilePathFor(options.localPath)) {
    status_.downloadId = id;
    status_.downloadOptions = std::move(options);
}

DownloadTransfer::~DownloadTransfer() = default;

bool DownloadTransfer::start(Clock::time_point now) {
    report();  // Pending
    const std::string& localPath = status_.downloadOptions.localPath;
    std::filesystem::path directory = std::filesystem::path(localPath).parent_path();
    if (directory.empty()) {
        directory = ".";
    }
    std::error_code error;
    if (!std::filesystem::is_directory(directory, error)) {
        fail(DownloadErrorCode::FileSystemError, localPath + " is not writable.");
        return false;
    }
    if (status_.downloadOptions.resume) {
        if (auto data = takeResumeData()) {
            offset_ = written_ = data->bytes;
            resume_ = data;
            resumedFrom_ = std::move(data);
            ownsPartial_ = true;
        }
    }
    if (exceedsLimit(written_)) {
        discardPartial();
        fail(DownloadErrorCode::SizeExceeded, sizeExceededText(*status_.downloadOptions.maxBytes));
        return false;
    }
    rangeRequested_ = offset_ > 0;
    lastActivity_ = lastReport_ = now;
    if (!createHandle(rangeRequested_)) {
        return false;
    }
    if (rangeRequested_) {
        announceHead_ = true;
    } else {
        status_.state = DownloadState::Downloading;
        report();
    }
    return true;
}

optional<ResumeData> DownloadTransfer::takeResumeData() {
    auto data = loadResumeData(status_.downloadOptions);
    if (!data) {
        return nullopt;
    }
    // Used up whatever comes of it; a fresh file is written once the server has answered.
    removeResumeData(status_.downloadOptions.localPath);
    // Readable too, for the digest of the bytes it already holds.
    const int fd = ::open(partialPath_.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return nullopt;
    }
    partial_ = base::io::FileDescriptor(fd);
    (void)::fchmod(fd, kPrivateFileMode);  // one left by an older version may be readable by all
    struct stat info {};
    // A file shorter than recorded was not written by the download the data describes. One that
    // is longer holds what arrived after the data was last stored (a kill or a crash cut the
    // download off): those bytes came in order from the same entity and are kept.
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        static_cast<std::uint64_t>(info.st_size) < data->bytes || info.st_size == 0) {
        (void)partial_.close();
        return nullopt;
    }
    data->bytes = static_cast<std::uint64_t>(info.st_size);
    return data;
}

bool DownloadTransfer::createHandle(bool withRange) {
    // The old handle refers to the old header list: it goes first.
    easy_.reset();
    std::vector<std::string> extra{kIdentityEncoding};
    if (withRange) {
        extra.push_back("Range: bytes=" + std::to_string(offset_) + "-");
        extra.push_back("If-Range: " + resume_->ifRangeValidator());
    }
    auto headers = buildHeaderList(status_.downloadOptions.request, userAgent_, extra);
    if (!headers) {
        failed(headers.error());
        return false;
    }
    headers_ = std::move(*headers);
    auto easy = createEasyHandle(status_.downloadOptions.request, headers_, errorBuffer_);
    if (!easy) {
        failed(easy.error());
        return false;
    }
    easy_ = std::move(*easy);
    CURL* handle = easy_.get();
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &DownloadTransfer::onHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &DownloadTransfer::onBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
    head_.reset();
    sink_ = BodySink::Discard;
    return true;
}

std::size_t DownloadTransfer::onHeader(char* data, std::size_t size, std::size_t count,
                                       void* self) {
    const std::size_t length = size * count;
    return static_cast<DownloadTransfer*>(self)->acceptHeaderLine({data, length}) ? length : 0;
}

std::size_t DownloadTransfer::onBody(char* data, std::size_t size, std::size_t count, void* self) {
    const std::size_t length = size * count;
    return static_cast<DownloadTransfer*>(self)->acceptBody(data, length) ? length : 0;
}

bool DownloadTransfer::acceptHeaderLine(std::string_view line) {
    lastActivity_ = Clock::now();
    switch (head_.feed(line)) {
        case ResponseHead::Event::Final:
            return acceptFinalHead();
        case ResponseHead::Event::TooLarge:
            headTooLarge_ = true;
            return false;
        default:
            return true;
    }
}

bool DownloadTransfer::acceptFinalHead() {
    const std::int64_t code = head_.code();
    status_.httpResult = HttpResponseData{head_.headers(), code, {}};
    if (isSuccess(code)) {
        return acceptSuccessHead(code);
    }
    if (code == 416 && rangeRequested_ && !restartedWithoutRange_) {
        // The stored offset lies beyond what the server has now: start over once without a
        // range. The short error body is let through so the connection can be reused.
        restartPending_ = true;
        return true;
    }
    sink_ = BodySink::Memory;
    return true;
}

bool DownloadTransfer::acceptSuccessHead(std::int64_t code) {
    const auto encoding = head_.header("content-encoding");
    // The server's ranges count encoded bytes while the file gets decoded ones: such a body can
    // neither be resumed nor measured.
    const bool encoded = encoding && !encoding->empty() && *encoding != "identity";
    const auto contentRange = head_.header("content-range");
    const auto range = contentRange ? parseContentRange(*contentRange) : nullopt;
    if (code == 206 && rangeRequested_) {
        if (!range || range->first != offset_) {
            restartPending_ = true;
            return false;  // not the bytes that were asked for: abort and start over
        }
    } else {
        // A whole body: the server ignored the range, or the file changed (If-Range failed).
        offset_ = 0;
        written_ = 0;
    }

    status_.totalBytes.reset();
    if (!encoded) {
        if (range && offset_ > 0 && range->completeLength) {
            status_.totalBytes = range->completeLength;
        } else if (const auto length = head_.header("content-length")) {
            if (const auto bytes = parseNumber(*length)) {
                status_.totalBytes = offset_ + *bytes;
            }
        }
    }
    if (status_.totalBytes && exceedsLimit(*status_.totalBytes)) {
        sizeExceeded_ = true;
        return false;  // announced too large: not a byte of it is wanted
    }

    if (!openPartialFile(offset_ == 0)) {
        return false;
    }

    ResumeData data;
    data.url = resumeUrlFor(status_.downloadOptions.request.url);
    data.partialPath = partialPath_;
    data.bytes = written_;
    const auto etag = head_.header("etag");
    if (etag && !etag->starts_with("W/")) {
        data.etag = *etag;  // a weak tag would never satisfy If-Range
    }
    data.lastModified = head_.header("last-modified").value_or("");
    if (!data.hasValidator() && offset_ > 0 && resume_) {
        data.etag = resume_->etag;  // a 206 that repeats no validator still matched ours
        data.lastModified = resume_->lastModified;
    }
    resume_.reset();
    if (data.hasValidator() && !encoded) {
        resume_ = data;
        wroteResumeData_ = true;
        const auto stored = storeResumeData(status_.downloadOptions.localPath, data);
        resumeDataOnDisk_ = stored.has_value();
        if (!stored) {
            Log::debug("Could not store resume data: " + stored.error(), std::string("http"));
        }
    }

    status_.receivedBytes = written_;
    if (announceHead_) {
        announceHead_ = false;
        status_.state = DownloadState::Downloading;
        // Queued now, not at the next tick, so that it carries the offset it resumed from.
        lastReport_ = lastActivity_;
        report();
    }
    sink_ = BodySink::File;
    return true;
}

bool DownloadTransfer::openPartialFile(bool truncate) {
    if (!static_cast<bool>(partial_)) {
        const int fd = ::open(partialPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kPrivateFileMode);
        if (fd < 0) {
            fileError_ = systemErrorText(errno);
            return false;
        }
        partial_ = base::io::FileDescriptor(fd);
    }
    ownsPartial_ = true;
    unwritten_.clear();
    digest_.reset();
    const off_t end = truncate ? 0 : static_cast<off_t>(offset_);
    // Bytes past the offset (kept from a cut-off run) are replaced by what arrives now.
    if (::ftruncate(partial_.get(), end) != 0 || ::lseek(partial_.get(), end, SEEK_SET) < 0) {
        fileError_ = systemErrorText(errno);
        return false;
    }
    if (status_.downloadOptions.recordDigest) {
        digest_ = FileDigestFollower::start(partial_.get(), static_cast<std::uint64_t>(end));
    }
    return true;
}

bool DownloadTransfer::acceptBody(const char* data, std::size_t size) {
    lastActivity_ = Clock::now();
    switch (sink_) {
        case BodySink::Discard:
            return true;
        case BodySink::Memory: {
            const std::size_t room = kMaxErrorBody - errorBody_.size();
            const std::size_t kept = size < room ? size : room;
            const auto* bytes = reinterpret_cast<const std::uint8_t*>(data);
            errorBody_.insert(errorBody_.end(), bytes, bytes + kept);
            if (kept < size) {
                errorBodyCapped_ = true;
                return false;  // enough of an error message: stop receiving
            }
            return true;
        }
        case BodySink::File: {
            const std::uint64_t received = written_ + unwritten_.size() + size;
            if (exceedsLimit(received)) {
                sizeExceeded_ = true;
                return false;
            }
            if (unwritten_.size() + size > kWriteBytes && !flushBody()) {
                return false;
            }
            if (size >= kWriteBytes) {
                if (!writeBody(data, size)) {
                    return false;
                }
            } else {
                if (unwritten_.capacity() < kWriteBytes) {
                    unwritten_.reserve(kWriteBytes);
                }
                unwritten_.insert(unwritten_.end(), data, data + size);
            }
            status_.receivedBytes = received;
            progressDirty_ = true;
            return true;
        }
    }
    return true;
}

bool DownloadTransfer::writeBody(const char* data, std::size_t size) {
    if (const int error = base::io::writeAll(partial_.get(), std::string_view(data, size))) {
        fileError_ = systemErrorText(error);
        return false;
    }
    written_ += size;
    if (digest_) {
        digest_->advance(written_);
    }
    if (written_ - writebackFrom_ >= kWritebackBytes) {
        // Only a hint: a file system without it flushes everything at the end.
        (void)::sync_file_range(partial_.get(), static_cast<off_t>(writebackFrom_),
                                static_cast<off_t>(written_ - writebackFrom_),
                                SYNC_FILE_RANGE_WRITE);
        writebackFrom_ = written_;
    }
    return true;
}

bool DownloadTransfer::flushBody() {
    if (unwritten_.empty()) {
        return true;
    }
    const bool written = writeBody(unwritten_.data(), unwritten_.size());
    // Bytes a failed write left behind are not retried: the download ends on the error.
    unwritten_.clear();
    return written;
}

CurlTransfer::Next DownloadTransfer::complete(CURLcode result) {
    if (restartPending_) {
        restartPending_ = false;
        restartedWithoutRange_ = true;
        rangeRequested_ = false;
        offset_ = 0;
        errorBody_.clear();
        announceHead_ = true;
        lastActivity_ = Clock::now();
        return createHandle(false) ? Next::Restart : Next::Done;
    }
    if (!fileError_) {
        (void)flushBody();
    }
    if (sizeExceeded_) {
        discardPartial();
        fail(DownloadErrorCode::SizeExceeded, sizeExceededText(*status_.downloadOptions.maxBytes));
        return Next::Done;
    }
    if (fileError_) {
        // A full disk included: what was written stays, and so does the resume data.
        keepPartialForLater();
        fail(DownloadErrorCode::FileSystemError, *fileError_);
        return Next::Done;
    }
    if (headTooLarge_) {
        keepPartialForLater();
        fail(DownloadErrorCode::NetworkError, kResponseHeaderTooLarge);
        return Next::Done;
    }
    if (result == CURLE_OPERATION_TIMEDOUT) {
        // The connect timeout or the stall limit of TransferLimits.
        timeOut();
        return Next::Done;
    }
    if (result != CURLE_OK && !errorBodyCapped_) {
        keepPartialForLater();
        fail(DownloadErrorCode::NetworkError,
             curlErrorText(result, errorBuffer_, head_.isComplete()));
        return Next::Done;
    }
    if (!head_.isComplete() || !isSuccess(head_.code())) {
        finishWithErrorBody();
    } else {
        succeed();
    }
    return Next::Done;
}

void DownloadTransfer::succeed() {
    const std::string& localPath = status_.downloadOptions.localPath;
    if (!static_cast<bool>(partial_) && !openPartialFile(true)) {
        fail(DownloadErrorCode::FileSystemError, *fileError_);
        return;
    }
    const auto digest = digest_ ? digest_->finish(written_) : nullopt;
    int error = ::fdatasync(partial_.get()) == 0 ? 0 : errno;
    if (const int closeError = partial_.close(); error == 0) {
        error = closeError;
    }
    auto& digests = util::DigestCache::instance();
    // Recorded for the file as flushed, through the follower's descriptor, and carried over by
    // the rename: nothing that changes the file in between can slip into the record.
    if (error == 0 && digest) {
        (void)digests.record(digest_->descriptor(), *digest);
    }
    digest_.reset();
    if (error == 0) {
        error = digests.rename(partialPath_, localPath);
    }
    if (error != 0) {
        keepPartialForLater();
        fail(DownloadErrorCode::FileSystemError, systemErrorText(error));
        return;
    }
    ownsPartial_ = false;
    if (wroteResumeData_) {
        removeResumeData(localPath);
        resumeDataOnDisk_ = false;
    }
    status_.state = DownloadState::Finished;
    status_.receivedBytes = written_;
    status_.totalBytes = written_;
    reportFinal();
}

void DownloadTransfer::finishWithErrorBody() {
    if (!status_.httpResult) {
        long code = 0;
        curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &code);
        status_.httpResult = HttpResponseData{head_.headers(), code, {}};
    }
    // The partial file was not touched by this answer: what it had still resumes.
    digest_.reset();
    (void)partial_.close();
    if (resumedFrom_) {
        (void)storeResumeData(status_.downloadOptions.localPath, *resumedFrom_);
    }
    status_.state = DownloadState::Finished;
    status_.receivedBytes = errorBody_.size();
    status_.totalBytes = status_.receivedBytes;
    if (status_.httpResult->has_value()) {
        (*status_.httpResult)->data = std::move(errorBody_);
    }
    reportFinal();
}

bool DownloadTransfer::cancel() {
    slot_->closed = true;
    return keepPartialForLater();
}

void DownloadTransfer::failed(const std::string& message) {
    keepPartialForLater();
    fail(DownloadErrorCode::NetworkError, message);
}

void DownloadTransfer::abandon() {
    slot_->closed = true;
    keepPartialForLater();
}

bool DownloadTransfer::keepPartialForLater() {
    if (!fileError_) {
        (void)flushBody();
    }
    unwritten_.clear();
    digest_.reset();
    (void)partial_.close();
    if (!ownsPartial_) {
        return false;
    }
    if (resume_) {
        resume_->bytes = written_;
        if (storeResumeData(status_.downloadOptions.localPath, *resume_)) {
            wroteResumeData_ = resumeDataOnDisk_ = true;
            return true;
        }
        // The data stored earlier (as on a full disk, where nothing new can be written) still
        // resumes: it counts fewer bytes than the file holds, and the surplus is kept.
        if (resumeDataOnDisk_) {
            return true;
        }
    }
    ::unlink(partialPath_.c_str());
    ownsPartial_ = false;
    return false;
}

void DownloadTransfer::discardPartial() {
    unwritten_.clear();
    digest_.reset();
    (void)partial_.close();
    if (ownsPartial_) {
        ::unlink(partialPath_.c_str());
        ownsPartial_ = false;
    }
    removeResumeData(status_.downloadOptions.localPath);
    resume_.reset();
    resumeDataOnDisk_ = false;
}

bool DownloadTransfer::exceedsLimit(std::uint64_t bytes) const {
    const auto& limit = status_.downloadOptions.maxBytes;
    return limit && bytes > *limit;
}

void DownloadTransfer::timeOut() {
    keepPartialForLater();
    status_.httpResult =
        unexpected(HttpRequestError{HttpRequestErrorType::RequestTimedOut, kTimedOut});
    fail(DownloadErrorCode::NetworkError, kTimedOut);
}

void DownloadTransfer::fail(DownloadErrorCode code, std::string message) {
    status_.state = DownloadState::Failed;
    status_.error = DownloadError{code, std::move(message)};
    reportFinal();
}

bool DownloadTransfer::tick(Clock::time_point now) {
    const auto limit = inactivityLimit();
    if (limit.count() > 0 && now - lastActivity_ >= limit) {
        timeOut();
        return true;
    }
    if (progressDirty_ && now - lastReport_ >= kProgressInterval) {
        progressDirty_ = false;
        lastReport_ = now;
        report();
    }
    return false;
}

optional<CurlTransfer::Clock::time_point> DownloadTransfer::nextDeadline() const {
    optional<Clock::time_point> deadline;
    if (const auto limit = inactivityLimit(); limit.count() > 0) {
        deadline = lastActivity_ + limit;
    }
    if (progressDirty_) {
        const auto due = lastReport_ + kProgressInterval;
        deadline = deadline ? std::min(*deadline, due) : due;
    }
    return deadline;
}

std::chrono::seconds DownloadTransfer::inactivityLimit() const {
    return std::chrono::seconds(status_.downloadOptions.request.timeout);
}

void DownloadTransfer::report() {
    deliveries_.push([slot = slot_, status = status_]() mutable {
        if (!slot->closed) {
            slot->callback(std::move(status));
        }
    });
}

void DownloadTransfer::reportFinal() {
    deliveries_.push([slot = slot_, status = status_]() mutable {
        if (slot->closed) {
            return;
        }
        slot->closed = true;
        slot->callback(std::move(status));
        // Released once called for the last time, as the interface promises; nothing calls it
        // again since the slot is closed.
        slot->callback = nullptr;
    });
}

}  // namespace terrane::common
