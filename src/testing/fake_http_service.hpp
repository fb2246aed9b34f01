#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "terrane/expected.hpp"
#include "terrane/http/download.hpp"
#include "terrane/http/http_request.hpp"
#include "terrane/http/http_response.hpp"
#include "terrane/http/http_service_interface.hpp"

namespace terrane::common::test {

struct FakeHttpState;

// A request or a download issued by the code under test, and the means to answer it. A handle:
// copies refer to the same exchange, every member may be called from any thread, and handles may
// outlive their service. Answering a request twice, or scripting a download after its final
// state, is a test failure; scripting a download after it has been cancelled is silently dropped
// (the cancellation may have crossed the answer).
class FakeExchange {
  public:
    std::uint64_t id() const { return id_; }
    // A plain request has only its request.
    const DownloadOptions& options() const { return options_; }
    const HttpRequest& request() const { return options_.request; }
    const std::string& url() const { return request().url; }
    bool resume() const { return options_.resume; }

    // A request. Answers with an HTTP response; 4xx and 5xx statuses are responses too.
    void respond(std::int64_t code, std::string_view body = {}, HttpHeaders headers = {}) const;
    // Answers with a transport failure.
    void fail(HttpRequestErrorType type, std::string message) const;

    // A download. The fake keeps one status record per download, as a real service does: every
    // call below updates it and delivers a copy. Nothing is delivered on its own.
    // Downloading with this many bytes received (and the expected size, once known).
    void progress(std::uint64_t receivedBytes, optional<std::uint64_t> totalBytes = nullopt) const;
    // Writes content to localPath (replacing any file there), then reports Finished with all
    // bytes received, with a head of this code (by default a 200, or the head of an earlier
    // report).
    void finish(std::string_view content, optional<std::int64_t> code = nullopt,
                HttpHeaders headers = {}) const;
    void fail(DownloadErrorCode code, std::string message) const;
    // Delivers the record with this state and HTTP result, for cases the helpers above do not
    // cover.
    void report(DownloadState state, optional<HttpResult> result = nullopt) const;

  private:
    friend class FakeHttpService;
    FakeExchange(std::shared_ptr<FakeHttpState> state, std::uint64_t id, DownloadOptions options)
        : state_(std::move(state)), id_(id), options_(std::move(options)) {}
    // Applies change to the download's record and delivers a copy, unless it was cancelled.
    void script(const std::function<void(DownloadStatus&)>& change) const;

    std::shared_ptr<FakeHttpState> state_;
    std::uint64_t id_;
    DownloadOptions options_;
};
using FakeRequest = FakeExchange;
using FakeDownload = FakeExchange;

// A cancelRequest call of the code under test. A handle like FakeExchange; any thread.
class FakeCancellation {
  public:
    // The id the code under test asked to cancel.
    std::uint64_t id() const { return id_; }
    // Answers the cancellation (only needed in manual mode): true also delivers RequestCancelled
    // to a plain request not answered yet. Answering twice is a test failure.
    void answer(bool answer) const;

  private:
    friend class FakeHttpService;
    FakeCancellation(std::shared_ptr<FakeHttpState> state, std::size_t index, std::uint64_t id)
        : state_(std::move(state)), index_(index), id_(id) {}

    std::shared_ptr<FakeHttpState> state_;
    std::size_t index_;
    std::uint64_t id_;
};

// A scriptable in-memory HttpServiceInterface. It records every call of the code under test, lets
// a test wait for the next request, download or cancellation, and answer each later from any
// thread. Every answer is delivered at once on the thread that gives it (never under a lock of
// the fake), so it has reached the code under test when the answering call returns:
//
//     auto http = std::make_shared<FakeHttpService>();
//     HttpServiceFactory::setUserDefined(http);
//     ... the code under test lists the regions ...
//     auto listing = http->nextRequest();
//     EXPECT_EQ(listing.url(), "https://example.test/offline-data/v1/alice/regions");
//     listing.respond(200, R"({"region": {}})");
//
// Canned answers (respondToUrlsStartingWith) and cancellations are answered within the call of
// the code under test. A cancellation is answered false for an id that names nothing in flight,
// true for a live exchange. A cancelled download reports nothing more; a plain request cancelled
// with true then receives RequestCancelled. In manual mode the test answers each cancellation.
//
// Waiting calls give up after a generous guard timeout and throw std::runtime_error, which fails
// the test at that line instead of hanging it. Exchanges never answered end without a callback.
class FakeHttpService final : public HttpServiceInterface {
  public:
    FakeHttpService();

    // HttpServiceInterface: callable from any thread, including the fake's callbacks.
    void setMaxRequestsPerHost(std::uint8_t) override {}
    std::uint64_t request(HttpRequest&& request, HttpResponseCallback&& callback) override;
    void cancelRequest(std::uint64_t id, ResultCallback&& callback) override;
    bool supportsKeepCompression() override { return false; }
    std::uint64_t download(DownloadOptions&& options, DownloadStatusCallback&& callback) override;

    // Waiting for the code under test. Each returns the oldest exchange not yet returned by an
    // earlier call; requests answered automatically are skipped.
    FakeRequest nextRequest() { return next(false); }
    FakeDownload nextDownload() { return next(true); }
    FakeCancellation nextCancellation();

    // Every download recorded so far, in the order of the calls. Any thread.
    std::vector<FakeDownload> downloads() const { return recorded(true); }

    // Scripting in advance, from any thread; each setting applies to calls made after it.
    void answerCancellationsManually();
    // Later requests whose URL starts with prefix are answered at once with this response. The
    // first matching rule wins.
    void respondToUrlsStartingWith(std::string prefix, std::int64_t code, std::string body,
                                   HttpHeaders headers = {});
    // Removes every canned answer; later requests wait for the test again.
    void clearAutomaticAnswers();

  private:
    std::uint64_t record(DownloadOptions options, HttpResponseCallback onResponse,
                         DownloadStatusCallback onStatus);
    FakeExchange next(bool download);
    std::vector<FakeExchange> recorded(bool downloads) const;

    std::shared_ptr<FakeHttpState> state_;
};

}  // namespace terrane::common::test
