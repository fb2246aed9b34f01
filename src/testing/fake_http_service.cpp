#include "testing/fake_http_service.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "terrane/http/request_id.hpp"

namespace terrane::common::test {

namespace {

HttpBody toBytes(std::string_view text) {
    return HttpBody(text.begin(), text.end());
}

bool writeWholeFile(const std::string& path, std::string_view content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) {
        return false;
    }
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    return !out.fail();
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

// Everything the fake knows, shared with the handles so that a handle never dangles. One mutex
// guards it all; callbacks are only ever called on the delivery thread and never under the mutex,
// so they may call back into the fake.
class FakeHttpState : public std::enable_shared_from_this<FakeHttpState> {
  public:
    struct RequestExchange {
        HttpRequest request;
        // Empty once the answer is queued.
        std::shared_ptr<HttpResponseCallback> callback;
    };

    struct DownloadExchange {
        // The one record a real service keeps per download and re-delivers on every event.
        DownloadStatus status;
        // Empty once the download is over or cancelled; queued reports keep their own reference.
        std::shared_ptr<DownloadStatusCallback> callback;
        bool over = false;
        bool cancelled = false;
    };

    struct Cancellation {
        std::uint64_t id = 0;
        // Empty once answered.
        std::shared_ptr<ResultCallback> callback;
    };

    struct CannedResponse {
        std::string prefix;
        HttpResponseData data;
    };

    // Runs on the delivery thread until the fake closes and every queued answer is delivered.
    void runDeliveries() {
        std::unique_lock lock(mutex);
        for (;;) {
            work.wait(lock, [this] { return closing || !deliveries.empty(); });
            if (deliveries.empty()) {
                break;
            }
            auto delivery = std::move(deliveries.front());
            deliveries.pop_front();
            delivering = true;
            lock.unlock();
            try {
                delivery();
            } catch (const std::exception& e) {
                ADD_FAILURE() << "a callback called by FakeHttpService threw: " << e.what();
            } catch (...) {
                ADD_FAILURE() << "a callback called by FakeHttpService threw";
            }
            // The closure may hold the last reference to the callback; let it go unlocked.
            delivery = nullptr;
            lock.lock();
            delivering = false;
            if (deliveries.empty()) {
                settled.notify_all();
            }
        }
        settled.notify_all();
    }

    std::uint64_t recordRequest(HttpRequest&& request, HttpResponseCallback&& callback) {
        std::lock_guard lock(mutex);
        const auto id = nextHttpRequestId();
        auto& exchange = requests[id];
        exchange.request = std::move(request);
        exchange.callback = std::make_shared<HttpResponseCallback>(std::move(callback));
        if (const auto* canned = cannedResponseFor(exchange.request.url)) {
            answerRequestLocked(exchange, canned->data);
        } else {
            unclaimedRequests.push_back(id);
            recorded.notify_all();
        }
        return id;
    }

    std::uint64_t recordDownload(DownloadOptions&& options, DownloadStatusCallback&& callback) {
        std::lock_guard lock(mutex);
        const auto id = nextHttpRequestId();
        auto& exchange = downloads[id];
        exchange.status.downloadId = id;
        exchange.status.downloadOptions = std::move(options);
        exchange.callback = std::make_shared<DownloadStatusCallback>(std::move(callback));
        unclaimedDownloads.push_back(id);
        recorded.notify_all();
        return id;
    }

    void recordCancellation(std::uint64_t id, ResultCallback&& callback) {
        // Declared before the lock so that a dropped download callback dies unlocked.
        std::shared_ptr<DownloadStatusCallback> stopped;
        std::lock_guard lock(mutex);
        bool live = false;
        if (auto request = requests.find(id);
            request != requests.end() && request->second.callback) {
            live = true;
        } else if (auto download = downloads.find(id);
                   download != downloads.end() && download->second.callback) {
            live = true;
            // A cancelled download never reports again, whatever the answer says.
            stopped = std::move(download->second.callback);
            download->second.cancelled = true;
        }
        cancellations.push_back({id, std::make_shared<ResultCallback>(std::move(callback))});
        recorded.notify_all();
        if (!manualCancellations) {
            answerCancellationLocked(cancellations.size() - 1, live);
        }
    }

    void answerRequest(std::uint64_t id, HttpResult result) {
        std::lock_guard lock(mutex);
        auto& exchange = requests.at(id);
        if (!exchange.callback) {
            ADD_FAILURE() << "FakeHttpService: request " << id << " to " << exchange.request.url
                          << " was already answered";
            return;
        }
        answerRequestLocked(exchange, std::move(result));
    }

    void answerCancellation(std::size_t index, bool answer) {
        std::lock_guard lock(mutex);
        answerCancellationLocked(index, answer);
    }

    // Runs step on the download's record unless the download can no longer report.
    template <typename Step>
    void scriptDownload(std::uint64_t id, Step&& step) {
        std::lock_guard lock(mutex);
        auto& exchange = downloads.at(id);
        if (exchange.cancelled) {
            return;
        }
        if (exchange.over) {
            ADD_FAILURE() << "FakeHttpService: download " << id << " of "
                          << exchange.status.downloadOptions.request.url
                          << " was scripted after its final state";
            return;
        }
        step(exchange);
    }

    // Queues a copy of the record for the download's callback; a final state ends the download.
    void reportLocked(DownloadExchange& exchange) {
        const bool final = isFinal(exchange.status.state);
        auto callback = final ? std::move(exchange.callback) : exchange.callback;
        exchange.over = final;
        enqueueLocked([callback = std::move(callback), status = exchange.status]() mutable {
            (*callback)(std::move(status));
        });
    }

    // Puts the file in place and reports the outcome, as a real service does when the transfer
    // ends.
    void finishLocked(DownloadExchange& exchange, std::string_view content) {
        auto& status = exchange.status;
        if (!writeWholeFile(status.downloadOptions.localPath, content)) {
            status.state = DownloadState::Failed;
            status.error = DownloadError{DownloadErrorCode::FileSystemError,
                                         status.downloadOptions.localPath + " is not writable."};
            reportLocked(exchange);
            return;
        }
        if (!status.httpResult) {
            status.httpResult = HttpResponseData{{}, 200, {}};
        }
        status.receivedBytes = content.size();
        status.totalBytes = content.size();
        status.state = DownloadState::Finished;
        reportLocked(exchange);
    }

    // Waits on cv until ready holds, giving up after the guard timeout.
    template <typename Ready>
    void waitLocked(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, Ready ready,
                    const char* what) {
        if (std::this_thread::get_id() == deliveryThread) {
            throw std::logic_error(std::string("FakeHttpService: waiting for ") + what +
                                   " inside one of its own callbacks would never end");
        }
        if (!cv.wait_for(lock, guardTimeout, ready)) {
            throw std::runtime_error(std::string("FakeHttpService: gave up waiting for ") + what +
                                     " after " + std::to_string(guardTimeout.count()) + " ms");
        }
    }

    FakeRequest requestHandleLocked(std::uint64_t id) {
        return FakeRequest(shared_from_this(), id, requests.at(id).request);
    }

    FakeDownload downloadHandleLocked(std::uint64_t id) {
        return FakeDownload(shared_from_this(), id, downloads.at(id).status.downloadOptions);
    }

    FakeCancellation cancellationHandleLocked(std::size_t index) {
        return FakeCancellation(shared_from_this(), index, cancellations.at(index).id);
    }

    mutable std::mutex mutex;
    // Signalled when a request, download or cancellation is recorded.
    std::condition_variable recorded;
    // Signalled when the delivery thread has something to do.
    std::condition_variable work;
    // Signalled when the delivery queue has run dry.
    std::condition_variable settled;

    std::deque<std::function<void()>> deliveries;
    bool delivering = false;
    bool closing = false;
    std::thread::id deliveryThread;
    const std::chrono::milliseconds guardTimeout = FakeHttpService::kDefaultGuardTimeout;

    std::map<std::uint64_t, RequestExchange> requests;
    std::map<std::uint64_t, DownloadExchange> downloads;
    std::vector<Cancellation> cancellations;
    std::deque<std::uint64_t> unclaimedRequests;
    std::deque<std::uint64_t> unclaimedDownloads;
    std::size_t nextUnclaimedCancellation = 0;

    bool manualCancellations = false;
    std::vector<CannedResponse> cannedResponses;

  private:
    void enqueueLocked(std::function<void()> delivery) {
        // Once the delivery thread is gone the closure just waits here to be destroyed with the
        // state: answers given after the fake died are dropped.
        deliveries.push_back(std::move(delivery));
        work.notify_one();
    }

    void answerRequestLocked(RequestExchange& exchange, HttpResult result) {
        enqueueLocked([callback = std::move(exchange.callback),
                       response = HttpResponse{exchange.request, std::move(result)}]() mutable {
            (*callback)(std::move(response));
        });
    }

    void answerCancellationLocked(std::size_t index, bool answer) {
        auto& cancellation = cancellations.at(index);
        if (!cancellation.callback) {
            ADD_FAILURE() << "FakeHttpService: the cancellation of " << cancellation.id
                          << " was already answered";
            return;
        }
        enqueueLocked(
            [callback = std::move(cancellation.callback), answer] { (*callback)(answer); });
        // As on a real service, the cancelled request learns of it after the canceller.
        if (auto request = requests.find(cancellation.id);
            answer && request != requests.end() && request->second.callback) {
            answerRequestLocked(
                request->second,
                unexpected(HttpRequestError{HttpRequestErrorType::RequestCancelled, "cancelled"}));
        }
    }

    const CannedResponse* cannedResponseFor(const std::string& url) const {
        for (const auto& canned : cannedResponses) {
            if (startsWith(url, canned.prefix)) {
                return &canned;
            }
        }
        return nullptr;
    }
};

// FakeRequest

FakeRequest::FakeRequest(std::shared_ptr<FakeHttpState> state, std::uint64_t id,
                         HttpRequest request)
    : state_(std::move(state)), id_(id), request_(std::move(request)) {
}

bool FakeRequest::isAnswered() const {
    std::lock_guard lock(state_->mutex);
    return !state_->requests.at(id_).callback;
}

void FakeRequest::respond(std::int64_t code, std::string_view body, HttpHeaders headers) const {
    state_->answerRequest(id_, HttpResponseData{std::move(headers), code, toBytes(body)});
}

void FakeRequest::fail(HttpRequestErrorType type, std::string message) const {
    state_->answerRequest(id_, unexpected(HttpRequestError{type, std::move(message)}));
}

// FakeDownload

FakeDownload::FakeDownload(std::shared_ptr<FakeHttpState> state, std::uint64_t id,
                           DownloadOptions options)
    : state_(std::move(state)), id_(id), options_(std::move(options)) {
}

void FakeDownload::start() const {
    state_->scriptDownload(id_, [this](FakeHttpState::DownloadExchange& exchange) {
        exchange.status.state = DownloadState::Pending;
        state_->reportLocked(exchange);
        exchange.status.state = DownloadState::Downloading;
        exchange.status.receivedBytes = 0;
        state_->reportLocked(exchange);
    });
}

void FakeDownload::pending() const {
    state_->scriptDownload(id_, [this](FakeHttpState::DownloadExchange& exchange) {
        exchange.status.state = DownloadState::Pending;
        state_->reportLocked(exchange);
    });
}

void FakeDownload::progress(std::uint64_t receivedBytes, optional<std::uint64_t> totalBytes) const {
    state_->scriptDownload(id_, [&](FakeHttpState::DownloadExchange& exchange) {
        exchange.status.state = DownloadState::Downloading;
        exchange.status.receivedBytes = receivedBytes;
        if (totalBytes) {
            exchange.status.totalBytes = totalBytes;
        }
        state_->reportLocked(exchange);
    });
}

void FakeDownload::headError(HttpRequestErrorType type, std::string message) const {
    state_->scriptDownload(id_, [&](FakeHttpState::DownloadExchange& exchange) {
        exchange.status.httpResult = unexpected(HttpRequestError{type, std::move(message)});
    });
}

void FakeDownload::finish(std::string_view content) const {
    state_->scriptDownload(id_, [&](FakeHttpState::DownloadExchange& exchange) {
        state_->finishLocked(exchange, content);
    });
}

void FakeDownload::finish(std::string_view content, std::int64_t code, HttpHeaders headers) const {
    state_->scriptDownload(id_, [&](FakeHttpState::DownloadExchange& exchange) {
        exchange.status.httpResult = HttpResponseData{std::move(headers), code, {}};
        state_->finishLocked(exchange, content);
    });
}

void FakeDownload::fail(DownloadErrorCode code, std::string message) const {
    state_->scriptDownload(id_, [&](FakeHttpState::DownloadExchange& exchange) {
        exchange.status.state = DownloadState::Failed;
        exchange.status.error = DownloadError{code, std::move(message)};
        state_->reportLocked(exchange);
    });
}

void FakeDownload::report(DownloadStatus status) const {
    state_->scriptDownload(id_, [&](FakeHttpState::DownloadExchange& exchange) {
        exchange.status = std::move(status);
        state_->reportLocked(exchange);
    });
}

// FakeCancellation

FakeCancellation::FakeCancellation(std::shared_ptr<FakeHttpState> state, std::size_t index,
                                   std::uint64_t id)
    : state_(std::move(state)), index_(index), id_(id) {
}

void FakeCancellation::answer(bool answer) const {
    state_->answerCancellation(index_, answer);
}

// FakeHttpService

FakeHttpService::FakeHttpService()
    : state_(std::make_shared<FakeHttpState>()),
      delivery_([state = state_.get()] { state->runDeliveries(); }) {
    std::lock_guard lock(state_->mutex);
    state_->deliveryThread = delivery_.get_id();
}

FakeHttpService::~FakeHttpService() {
    if (std::this_thread::get_id() == delivery_.get_id()) {
        // Joining from here would wait for ourselves forever; say so instead of hanging.
        std::fputs("FakeHttpService: destroyed by one of its own callbacks\n", stderr);
        std::abort();
    }
    {
        std::lock_guard lock(state_->mutex);
        state_->closing = true;
    }
    state_->work.notify_all();
    delivery_.join();
}

void FakeHttpService::setMaxRequestsPerHost(std::uint8_t) {
}

std::uint64_t FakeHttpService::request(HttpRequest&& request, HttpResponseCallback&& callback) {
    return state_->recordRequest(std::move(request), std::move(callback));
}

void FakeHttpService::cancelRequest(std::uint64_t id, ResultCallback&& callback) {
    state_->recordCancellation(id, std::move(callback));
}

bool FakeHttpService::supportsKeepCompression() {
    return false;
}

std::uint64_t FakeHttpService::download(DownloadOptions&& options,
                                        DownloadStatusCallback&& callback) {
    return state_->recordDownload(std::move(options), std::move(callback));
}

FakeRequest FakeHttpService::nextRequest() {
    std::unique_lock lock(state_->mutex);
    state_->waitLocked(
        lock, state_->recorded, [this] { return !state_->unclaimedRequests.empty(); }, "a request");
    const auto id = state_->unclaimedRequests.front();
    state_->unclaimedRequests.pop_front();
    return state_->requestHandleLocked(id);
}

FakeDownload FakeHttpService::nextDownload() {
    std::unique_lock lock(state_->mutex);
    state_->waitLocked(
        lock, state_->recorded, [this] { return !state_->unclaimedDownloads.empty(); },
        "a download");
    const auto id = state_->unclaimedDownloads.front();
    state_->unclaimedDownloads.pop_front();
    return state_->downloadHandleLocked(id);
}

FakeCancellation FakeHttpService::nextCancellation() {
    std::unique_lock lock(state_->mutex);
    state_->waitLocked(
        lock, state_->recorded,
        [this] { return state_->nextUnclaimedCancellation < state_->cancellations.size(); },
        "a cancellation");
    return state_->cancellationHandleLocked(state_->nextUnclaimedCancellation++);
}

void FakeHttpService::waitUntilDelivered() {
    std::unique_lock lock(state_->mutex);
    state_->waitLocked(
        lock, state_->settled, [this] { return state_->deliveries.empty() && !state_->delivering; },
        "the answers to be delivered");
}

std::vector<FakeRequest> FakeHttpService::requests() const {
    std::lock_guard lock(state_->mutex);
    std::vector<FakeRequest> result;
    for (const auto& entry : state_->requests) {
        result.push_back(state_->requestHandleLocked(entry.first));
    }
    return result;
}

std::vector<FakeDownload> FakeHttpService::downloads() const {
    std::lock_guard lock(state_->mutex);
    std::vector<FakeDownload> result;
    for (const auto& entry : state_->downloads) {
        result.push_back(state_->downloadHandleLocked(entry.first));
    }
    return result;
}

std::vector<FakeCancellation> FakeHttpService::cancellations() const {
    std::lock_guard lock(state_->mutex);
    std::vector<FakeCancellation> result;
    for (std::size_t index = 0; index < state_->cancellations.size(); ++index) {
        result.push_back(state_->cancellationHandleLocked(index));
    }
    return result;
}

void FakeHttpService::answerCancellationsManually(bool manual) {
    std::lock_guard lock(state_->mutex);
    state_->manualCancellations = manual;
}

void FakeHttpService::respondToUrlsStartingWith(std::string prefix, std::int64_t code,
                                                std::string body, HttpHeaders headers) {
    std::lock_guard lock(state_->mutex);
    state_->cannedResponses.push_back(
        {std::move(prefix), HttpResponseData{std::move(headers), code, toBytes(body)}});
}

void FakeHttpService::clearAutomaticAnswers() {
    std::lock_guard lock(state_->mutex);
    state_->cannedResponses.clear();
}

}  // namespace terrane::common::test
