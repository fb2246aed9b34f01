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

// Everything the fake knows, shared with the handles so that a handle never dangles. One mutex
// guards it all; callbacks are taken out under it and called after it is released, so they may
// call back into the fake.
struct FakeHttpState {
    struct Exchange {
        // A plain request keeps its request in status.downloadOptions.
        DownloadStatus status;
        // Set until the request is answered, or until the download is over or cancelled.
        HttpResponseCallback onResponse;
        DownloadStatusCallback onStatus;
        bool download = false;
        bool cancelled = false;
    };
    struct Cancellation {
        std::uint64_t id = 0;
        ResultCallback callback;  // set until answered
    };

    // Waits until ready holds, giving up after a guard timeout.
    void wait(std::unique_lock<std::mutex>& lock, const char* what,
              const std::function<bool()>& ready) {
        if (!changed.wait_for(lock, std::chrono::seconds(30), ready)) {
            throw std::runtime_error(std::string("FakeHttpService: gave up waiting for ") + what);
        }
    }

    void answer(std::uint64_t id, HttpResult result) {
        std::unique_lock lock(mutex);
        auto& exchange = exchanges.at(id);
        auto callback = std::exchange(exchange.onResponse, nullptr);
        auto request = exchange.status.downloadOptions.request;
        lock.unlock();
        ASSERT_TRUE(callback) << "FakeHttpService: request " << id << " was already answered";
        callback(HttpResponse{std::move(request), std::move(result)});
    }

    std::mutex mutex;
    std::condition_variable changed;  // signalled whenever a call is recorded
    std::map<std::uint64_t, Exchange> exchanges;
    // The ids of requests [0] and downloads [1] not yet returned by nextRequest/nextDownload.
    std::deque<std::uint64_t> unclaimed[2];
    std::vector<Cancellation> cancellations;
    std::size_t claimedCancellations = 0;
    bool manualCancellations = false;
    std::vector<std::pair<std::string, HttpResponseData>> canned;
};

void FakeExchange::respond(std::int64_t code, std::string_view body, HttpHeaders headers) const {
    state_->answer(id_,
                   HttpResponseData{std::move(headers), code, HttpBody(body.begin(), body.end())});
}

void FakeExchange::fail(HttpRequestErrorType type, std::string message) const {
    state_->answer(id_, unexpected(HttpRequestError{type, std::move(message)}));
}

void FakeExchange::script(const std::function<void(DownloadStatus&)>& change) const {
    std::unique_lock lock(state_->mutex);
    auto& exchange = state_->exchanges.at(id_);
    if (exchange.cancelled) {
        return;
    }
    ASSERT_TRUE(exchange.onStatus) << "FakeHttpService: download " << id_ << " of " << url()
                                   << " was scripted after its final state";
    change(exchange.status);
    auto status = exchange.status;
    auto callback =
        isFinal(status.state) ? std::exchange(exchange.onStatus, nullptr) : exchange.onStatus;
    lock.unlock();
    callback(std::move(status));
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
    std::unique_lock lock(state_->mutex);
    auto callback = std::exchange(state_->cancellations.at(index_).callback, nullptr);
    ASSERT_TRUE(callback) << "FakeHttpService: the cancellation of " << id_
                          << " was already answered";
    HttpResponseCallback cancelled;
    HttpRequest request;
    if (auto found = state_->exchanges.find(id_); answer && found != state_->exchanges.end()) {
        cancelled = std::exchange(found->second.onResponse, nullptr);
        request = found->second.status.downloadOptions.request;
    }
    lock.unlock();
    callback(answer);
    // As on a real service, the cancelled request learns of it after the canceller.
    if (cancelled) {
        cancelled(HttpResponse{
            std::move(request),
            unexpected(HttpRequestError{HttpRequestErrorType::RequestCancelled, "cancelled"})});
    }
}

FakeHttpService::FakeHttpService() : state_(std::make_shared<FakeHttpState>()) {
}

// Records a call of the code under test; a request that a canned answer matches is answered at
// once and never handed to the test.
std::uint64_t FakeHttpService::record(DownloadOptions options, HttpResponseCallback onResponse,
                                      DownloadStatusCallback onStatus) {
    std::unique_lock lock(state_->mutex);
    const auto id = nextHttpRequestId();
    auto& exchange = state_->exchanges[id];
    exchange.status.downloadId = id;
    exchange.status.downloadOptions = std::move(options);
    exchange.onResponse = std::move(onResponse);
    exchange.onStatus = std::move(onStatus);
    state_->changed.notify_all();
    const auto& url = exchange.status.downloadOptions.request.url;
    exchange.download = exchange.onStatus != nullptr;
    for (const auto& [prefix, response] : state_->canned) {
        if (!exchange.download && url.starts_with(prefix)) {
            HttpResult answer = response;
            lock.unlock();
            state_->answer(id, std::move(answer));
            return id;
        }
    }
    state_->unclaimed[exchange.download].push_back(id);
    return id;
}

std::uint64_t FakeHttpService::request(HttpRequest&& request, HttpResponseCallback&& callback) {
    return record(DownloadOptions(std::move(request), ""), std::move(callback), nullptr);
}

std::uint64_t FakeHttpService::download(DownloadOptions&& options,
                                        DownloadStatusCallback&& callback) {
    return record(std::move(options), nullptr, std::move(callback));
}

void FakeHttpService::cancelRequest(std::uint64_t id, ResultCallback&& callback) {
    DownloadStatusCallback stopped;  // declared before the lock, so that it dies unlocked
    std::unique_lock lock(state_->mutex);
    bool live = false;
    if (auto found = state_->exchanges.find(id); found != state_->exchanges.end()) {
        auto& exchange = found->second;
        live = exchange.onResponse || exchange.onStatus;
        // A cancelled download never reports again, whatever the answer says.
        exchange.cancelled = exchange.cancelled || exchange.onStatus != nullptr;
        stopped = std::exchange(exchange.onStatus, nullptr);
    }
    state_->cancellations.push_back({id, std::move(callback)});
    state_->changed.notify_all();
    const FakeCancellation cancellation(state_, state_->cancellations.size() - 1, id);
    if (!state_->manualCancellations) {
        lock.unlock();
        cancellation.answer(live);
    }
}

FakeExchange FakeHttpService::next(bool download) {
    std::unique_lock lock(state_->mutex);
    auto& queue = state_->unclaimed[download];
    state_->wait(lock, download ? "a download" : "a request", [&] { return !queue.empty(); });
    const auto id = queue.front();
    queue.pop_front();
    return FakeExchange(state_, id, state_->exchanges.at(id).status.downloadOptions);
}

FakeCancellation FakeHttpService::nextCancellation() {
    std::unique_lock lock(state_->mutex);
    auto& claimed = state_->claimedCancellations;
    state_->wait(lock, "a cancellation", [&] { return claimed < state_->cancellations.size(); });
    const std::size_t index = claimed++;
    return FakeCancellation(state_, index, state_->cancellations[index].id);
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
