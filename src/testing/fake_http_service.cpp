#include "testing/fake_http_service.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "terrane/http/request_id.hpp"

namespace terrane::common::test {

namespace {
constexpr std::chrono::seconds kGuardTimeout{30};
}

// Everything the fake knows, shared with the handles so that a handle never dangles. One mutex
// guards it all; callbacks are only ever called on the delivery thread and never under the mutex,
// so they may call back into the fake.
struct FakeHttpState {
    struct Exchange {
        // A plain request keeps its request in status.downloadOptions.
        DownloadStatus status;
        // Set until the request is answered, or until the download is over or cancelled.
        std::shared_ptr<HttpResponseCallback> onResponse;
        std::shared_ptr<DownloadStatusCallback> onStatus;
        bool download = false;
        bool cancelled = false;
    };
    struct Cancellation {
        std::uint64_t id = 0;
        std::shared_ptr<ResultCallback> callback;  // set until answered
    };

    void runDeliveries() {
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [this] { return closing || !deliveries.empty(); });
            if (deliveries.empty()) {
                return;
            }
            auto delivery = std::move(deliveries.front());
            deliveries.pop_front();
            delivering = true;
            lock.unlock();
            delivery();
            // The closure may hold the last reference to the callback; let it go unlocked.
            delivery = nullptr;
            lock.lock();
            delivering = false;
            changed.notify_all();
        }
    }

    // Waits until ready holds, giving up after the guard timeout.
    void waitLocked(std::unique_lock<std::mutex>& lock, const char* what,
                    const std::function<bool()>& ready) {
        if (!changed.wait_for(lock, kGuardTimeout, ready)) {
            throw std::runtime_error(std::string("FakeHttpService: gave up waiting for ") + what);
        }
    }

    void enqueueLocked(std::function<void()> delivery) {
        deliveries.push_back(std::move(delivery));
        changed.notify_all();
    }

    void answerLocked(Exchange& exchange, HttpResult result) {
        if (!exchange.onResponse) {
            ADD_FAILURE() << "FakeHttpService: request " << exchange.status.downloadId
                          << " was already answered";
            return;
        }
        enqueueLocked([callback = std::move(exchange.onResponse),
                       response = HttpResponse{exchange.status.downloadOptions.request,
                                               std::move(result)}]() mutable {
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
        if (auto found = exchanges.find(cancellation.id);
            answer && found != exchanges.end() && found->second.onResponse) {
            answerLocked(found->second, unexpected(HttpRequestError{
                                            HttpRequestErrorType::RequestCancelled, "cancelled"}));
        }
    }

    // Records a call of the code under test; a request that a canned answer matches is answered
    // at once and never handed to the test.
    std::uint64_t record(Exchange added) {
        std::lock_guard lock(mutex);
        const auto id = nextHttpRequestId();
        auto& exchange = exchanges[id] = std::move(added);
        exchange.status.downloadId = id;
        changed.notify_all();
        const auto& url = exchange.status.downloadOptions.request.url;
        for (const auto& [prefix, response] : canned) {
            if (!exchange.download && url.starts_with(prefix)) {
                answerLocked(exchange, response);
                return id;
            }
        }
        unclaimed[exchange.download].push_back(id);
        return id;
    }

    std::mutex mutex;
    // Signalled on every change: a call recorded, an answer queued or delivered, the closing.
    std::condition_variable changed;
    std::deque<std::function<void()>> deliveries;
    bool delivering = false;
    bool closing = false;

    std::map<std::uint64_t, Exchange> exchanges;
    // The ids of requests [0] and downloads [1] not yet returned by nextRequest/nextDownload.
    std::deque<std::uint64_t> unclaimed[2];
    std::vector<Cancellation> cancellations;
    std::size_t claimedCancellations = 0;
    bool manualCancellations = false;
    std::vector<std::pair<std::string, HttpResponseData>> canned;
};

void FakeExchange::respond(std::int64_t code, std::string_view body, HttpHeaders headers) const {
    answer(HttpResponseData{std::move(headers), code, HttpBody(body.begin(), body.end())});
}

void FakeExchange::fail(HttpRequestErrorType type, std::string message) const {
    answer(unexpected(HttpRequestError{type, std::move(message)}));
}

void FakeExchange::answer(HttpResult result) const {
    std::lock_guard lock(state_->mutex);
    state_->answerLocked(state_->exchanges.at(id_), std::move(result));
}

void FakeExchange::script(const std::function<void(DownloadStatus&)>& change) const {
    std::lock_guard lock(state_->mutex);
    auto& exchange = state_->exchanges.at(id_);
    if (exchange.cancelled) {
        return;
    }
    if (!exchange.onStatus) {
        ADD_FAILURE() << "FakeHttpService: download " << id_ << " of " << url()
                      << " was scripted after its final state";
        return;
    }
    change(exchange.status);
    auto callback =
        isFinal(exchange.status.state) ? std::move(exchange.onStatus) : exchange.onStatus;
    state_->enqueueLocked([callback = std::move(callback), status = exchange.status]() mutable {
        (*callback)(std::move(status));
    });
}

void FakeExchange::progress(std::uint64_t receivedBytes, optional<std::uint64_t> totalBytes) const {
    script([&](DownloadStatus& status) {
        status.state = DownloadState::Downloading;
        status.receivedBytes = receivedBytes;
        status.totalBytes = totalBytes ? totalBytes : status.totalBytes;
    });
}

void FakeExchange::finish(std::string_view content, optional<std::int64_t> code,
                          HttpHeaders headers) const {
    script([&](DownloadStatus& status) {
        std::ofstream out(options_.localPath, std::ios::binary | std::ios::trunc);
        out << content;
        out.close();
        if (out.fail()) {
            status.state = DownloadState::Failed;
            status.error = DownloadError{DownloadErrorCode::FileSystemError,
                                         options_.localPath + " is not writable."};
            return;
        }
        if (code || !status.httpResult) {
            status.httpResult = HttpResponseData{std::move(headers), code.value_or(200), {}};
        }
        status.receivedBytes = content.size();
        status.totalBytes = content.size();
        status.state = DownloadState::Finished;
    });
}

void FakeExchange::fail(DownloadErrorCode code, std::string message) const {
    script([&](DownloadStatus& status) {
        status.state = DownloadState::Failed;
        status.error = DownloadError{code, std::move(message)};
    });
}

void FakeExchange::report(DownloadState state, optional<HttpResult> result) const {
    script([&](DownloadStatus& status) {
        status.state = state;
        status.httpResult = std::move(result);
    });
}

void FakeCancellation::answer(bool answer) const {
    std::lock_guard lock(state_->mutex);
    state_->answerCancellationLocked(index_, answer);
}

FakeHttpService::FakeHttpService()
    : state_(std::make_shared<FakeHttpState>()),
      delivery_([state = state_.get()] { state->runDeliveries(); }) {
}

FakeHttpService::~FakeHttpService() {
    {
        std::lock_guard lock(state_->mutex);
        state_->closing = true;
    }
    state_->changed.notify_all();
    delivery_.join();
}

std::uint64_t FakeHttpService::request(HttpRequest&& request, HttpResponseCallback&& callback) {
    FakeHttpState::Exchange exchange;
    exchange.status.downloadOptions.request = std::move(request);
    exchange.onResponse = std::make_shared<HttpResponseCallback>(std::move(callback));
    return state_->record(std::move(exchange));
}

std::uint64_t FakeHttpService::download(DownloadOptions&& options,
                                        DownloadStatusCallback&& callback) {
    FakeHttpState::Exchange exchange;
    exchange.status.downloadOptions = std::move(options);
    exchange.onStatus = std::make_shared<DownloadStatusCallback>(std::move(callback));
    exchange.download = true;
    return state_->record(std::move(exchange));
}

void FakeHttpService::cancelRequest(std::uint64_t id, ResultCallback&& callback) {
    // Declared before the lock so that a dropped download callback dies unlocked.
    std::shared_ptr<DownloadStatusCallback> stopped;
    std::lock_guard lock(state_->mutex);
    bool live = false;
    if (auto found = state_->exchanges.find(id); found != state_->exchanges.end()) {
        auto& exchange = found->second;
        live = exchange.onResponse || exchange.onStatus;
        // A cancelled download never reports again, whatever the answer says.
        exchange.cancelled = exchange.cancelled || exchange.onStatus != nullptr;
        stopped = std::move(exchange.onStatus);
    }
    state_->cancellations.push_back({id, std::make_shared<ResultCallback>(std::move(callback))});
    state_->changed.notify_all();
    if (!state_->manualCancellations) {
        state_->answerCancellationLocked(state_->cancellations.size() - 1, live);
    }
}

FakeExchange FakeHttpService::next(bool download) {
    std::unique_lock lock(state_->mutex);
    auto& queue = state_->unclaimed[download];
    state_->waitLocked(lock, download ? "a download" : "a request", [&] { return !queue.empty(); });
    const auto id = queue.front();
    queue.pop_front();
    return FakeExchange(state_, id, state_->exchanges.at(id).status.downloadOptions);
}

FakeCancellation FakeHttpService::nextCancellation() {
    std::unique_lock lock(state_->mutex);
    auto& cancellations = state_->cancellations;
    auto& claimed = state_->claimedCancellations;
    state_->waitLocked(lock, "a cancellation", [&] { return claimed < cancellations.size(); });
    const std::size_t index = claimed++;
    return FakeCancellation(state_, index, cancellations[index].id);
}

void FakeHttpService::waitUntilDelivered() {
    std::unique_lock lock(state_->mutex);
    state_->waitLocked(lock, "the answers to be delivered",
                       [&] { return state_->deliveries.empty() && !state_->delivering; });
}

std::vector<FakeExchange> FakeHttpService::recorded(bool downloads) const {
    std::lock_guard lock(state_->mutex);
    std::vector<FakeExchange> result;
    for (const auto& [id, exchange] : state_->exchanges) {
        if (exchange.download == downloads) {
            result.push_back(FakeExchange(state_, id, exchange.status.downloadOptions));
        }
    }
    return result;
}

std::size_t FakeHttpService::cancellationCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->cancellations.size();
}

void FakeHttpService::answerCancellationsManually() {
    std::lock_guard lock(state_->mutex);
    state_->manualCancellations = true;
}

void FakeHttpService::respondToUrlsStartingWith(std::string prefix, std::int64_t code,
                                                std::string body, HttpHeaders headers) {
    std::lock_guard lock(state_->mutex);
    state_->canned.emplace_back(
        std::move(prefix),
        HttpResponseData{std::move(headers), code, HttpBody(body.begin(), body.end())});
}

void FakeHttpService::clearAutomaticAnswers() {
    std::lock_guard lock(state_->mutex);
    state_->canned.clear();
}

}  // namespace terrane::common::test
