#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/curl_handles.hpp"
#include "platform/linux/curl_transfer.hpp"
#include "platform/linux/delivery_queue.hpp"
#include "platform/linux/easy_request.hpp"
#include "platform/linux/file_digest_follower.hpp"
#include "platform/linux/response_head.hpp"
#include "platform/linux/resume_data.hpp"
#include "terrane/http/http_service_interface.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::common {

// A download into a file, with resume.
//
// Reports: Pending first; Downloading at once for a fresh start, or when the answer to a resumed
// request arrives; progress at most once per kProgressInterval; then exactly one Finished or
// Failed. Nothing after the final report or after a cancellation.
//
// Files: the bytes go to "<localPath>.part" (mode 0600), which on success is flushed and renamed
// over localPath. When the options ask for it, their MD5 digest is taken as they arrive (a resumed
// file's earlier bytes included) and recorded in the process's digest cache for the file as
// renamed, so that util::md5File answers for it without reading it while nothing changes it. An
// answer outside 2xx still ends Finished but leaves the destination alone; its body (at most
// kMaxErrorBody bytes) is the data of httpResult. Resume data ("<localPath>.rd") is written as soon
// as the head of a resumable answer (2xx with a strong ETag or a Last-Modified date, body not
// content-encoded) arrives, and refreshed with the byte count when the download is cancelled, fails
// in transport or on a full disk, or is abandoned, so that a download cut off even by a crash can
// resume. A partial file that cannot be resumed is removed when the download ends. The request goes
// out with "Accept-Encoding: identity", whatever the caller's headers say.
//
// Size: with options.maxBytes, a download ends with SizeExceeded as soon as the bytes it holds
// (a resumed offset included) would exceed it, or the response head announces more; its partial
// file and resume data are removed then.
//
// Resume: "Range: bytes=N-" and "If-Range" with the stored validator; 206 appends; 200 starts the
// file over; 416 starts over once without a range.
//
// Inactivity: request.timeout (seconds, 0: none) limits the time without any bytes arriving, head
// or body; the download then fails with NetworkError "Request timed out.", as it does when the
// process-wide TransferLimits end it.
//
// Engine thread only.
class DownloadTransfer final : public CurlTransfer {
  public:
    static constexpr std::chrono::milliseconds kProgressInterval{100};
    static constexpr std::size_t kMaxErrorBody = 64 * 1024;

    DownloadTransfer(std::uint64_t id, DownloadOptions options, DownloadStatusCallback callback,
                     std::string userAgent, DeliveryQueue& deliveries);
    ~DownloadTransfer() override;

    // Reports Pending, checks the destination, takes up valid resume data and sets up the easy
    // handle. False when the download is already over (its final report is queued).
    bool start(Clock::time_point now);

    CURL* handle() const override { return easy_.get(); }
    Next complete(CURLcode result) override;
    // True when resume data was stored.
    bool cancel() override;
    void failed(const std::string& message) override;
    void abandon() override;
    bool tick(Clock::time_point now) override;
    optional<Clock::time_point> nextDeadline() const override;

  private:
    struct CallbackSlot;
    enum class BodySink { Discard, File, Memory };

    static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* self);
    bool acceptHeaderLine(std::string_view line);
    bool acceptFinalHead();
    bool acceptSuccessHead(std::int64_t code);
    bool acceptBody(const char* data, std::size_t size);
    // Write to the partial file; false (fileError_ set) when the write fails.
    bool writeBody(const char* data, std::size_t size);
    bool flushBody();

    // False when the handle could not be set up; the failure is queued then.
    bool createHandle(bool withRange);
    optional<ResumeData> takeResumeData();
    bool openPartialFile(bool truncate);
    void succeed();
    void finishWithErrorBody();
    void fail(DownloadErrorCode code, std::string message);
    // Keeps the partial file with fresh resume data when the download can be resumed, else
    // removes a partial file this download wrote. True when resume data was stored.
    bool keepPartialForLater();
    // Removes the partial file and the resume data.
    void discardPartial();
    bool exceedsLimit(std::uint64_t bytes) const;
    void timeOut();
    void report();
    void reportFinal();
    std::chrono::seconds inactivityLimit() const;

    std::uint64_t id_;
    DownloadStatus status_;
    std::shared_ptr<CallbackSlot> slot_;
    std::string userAgent_;
    DeliveryQueue& deliveries_;
    std::string partialPath_;

    CurlHeaderList headers_;
    CurlErrorBuffer errorBuffer_{};
    CurlEasyHandle easy_;
    ResponseHead head_;
    BodySink sink_ = BodySink::Discard;

    base::io::FileDescriptor partial_;
    // The digest of the partial file from its first byte, while one can be taken.
    std::unique_ptr<FileDigestFollower> digest_;
    // Whether the partial file holds bytes of this download (and so is ours to remove).
    bool ownsPartial_ = false;
    // The offset the running request continues from; 0 for a request without a range.
    std::uint64_t offset_ = 0;
    // Bytes in the partial file.
    std::uint64_t written_ = 0;
    // Where the bytes whose write-back has not been started yet begin.
    std::uint64_t writebackFrom_ = 0;
    // Bytes received after those, gathered for one larger write.
    std::vector<char> unwritten_;
    // What resumes this download later; set once validators are known.
    optional<ResumeData> resume_;
    // Whether this download has written resume data (and so may remove the file when done).
    bool wroteResumeData_ = false;
    // Whether resume data describing the partial file is on disk now (the last store succeeded).
    bool resumeDataOnDisk_ = false;
    bool sizeExceeded_ = false;
    bool headTooLarge_ = false;
    // The data this download was resumed from, put back if the server answers outside 2xx.
    optional<ResumeData> resumedFrom_;
    bool rangeRequested_ = false;
    bool restartedWithoutRange_ = false;
    bool restartPending_ = false;
    // Report Downloading when the next final head arrives (resumed or restarted downloads).
    bool announceHead_ = false;
    bool progressDirty_ = false;
    HttpBody errorBody_;
    bool errorBodyCapped_ = false;
    optional<std::string> fileError_;
    Clock::time_point lastActivity_;
    Clock::time_point lastReport_;
};

}  // namespace terrane::common
