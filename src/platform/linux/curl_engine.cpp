#include "platform/linux/curl_engine.hpp"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "platform/linux/curl_global.hpp"
#include "platform/linux/download_transfer.hpp"
#include "platform/linux/linux_user_agent.hpp"
#include "platform/linux/request_transfer.hpp"

namespace terrane::common {

namespace {

// An upper bound for one wait, so that a lost wake-up could never stall the engine for long.
constexpr int kMaxPollMilliseconds = 1000;

CURLM* createMultiHandle() {
    ensureCurlGlobalInit();
    CURLM* multi = curl_multi_init();
    if (multi == nullptr) {
        std::fputs("terrane: curl_multi_init failed\n", stderr);
        std::abort();
    }
    return multi;
}

}  // namespace

CurlEngine::CurlEngine() : multi_(createMultiHandle()) {
    curl_multi_setopt(multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS, kDefaultMaxHostConnections);
    thread_ = std::thread([this] { run(); });
    // Named here rather than by the thread itself, so that the name is there as soon as the
    // engine is: a debugger, top -H or a test can tell the engine from other threads.
    ::pthread_setname_np(thread_.native_handle(), threadName);
}

CurlEngine::~CurlEngine() {
    if (isEngineThread()) {
        // Joining itself is impossible and detaching would let the thread outlive its engine.
        std::fputs("terrane: the HTTP service was released from its own callback\n", stderr);
        std::abort();
    }
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    curl_multi_wakeup(multi_.get());
    thread_.join();
}

void CurlEngine::post(Command command) {
    {
        std::lock_guard lock(mutex_);
        commands_.push_back(std::move(command));
    }
    curl_multi_wakeup(multi_.get());
}

bool CurlEngine::isEngineThread() const {
    return std::this_thread::get_id() == thread_.get_id();
}

void CurlEngine::run() {
    for (;;) {
        const bool stop = runCommands();
        deliveries_.drain();
        if (stop) {
            break;
        }
        int running = 0;
        curl_multi_perform(multi_.get(), &running);
        collectFinished();
        tickTransfers();
        // Before the wait, so that a request admitted now counts in its timeout.
        admitWaiting();
        deliveries_.drain();
        // Commands posted meanwhile have woken the multi handle already: this returns at once.
        curl_multi_poll(multi_.get(), nullptr, 0, pollTimeoutMilliseconds(), nullptr);
    }
    shutdown();
}

bool CurlEngine::runCommands() {
    std::vector<Command> commands;
    bool stop = false;
    {
        std::lock_guard lock(mutex_);
        commands.swap(commands_);
        stop = stopping_;
    }
    if (stop) {
        return true;  // dropped: exchanges still in flight end without a callback
    }
    for (auto& command : commands) {
        command();
    }
    return false;
}

void CurlEngine::startRequest(std::uint64_t id, HttpRequest&& request,
                              HttpResponseCallback&& callback) {
    const std::string userAgent = linuxUserAgent(request.uaComponents);
    auto transfer =
        std::make_unique<RequestTransfer>(std::move(request), std::move(callback), deliveries_);
    if (!transfer->start(userAgent)) {
        return;
    }
    if (idsByHandle_.size() >= kMaxAdmittedRequests || !waitingOrder_.empty()) {
        waiting_.emplace(id, std::move(transfer));
        waitingOrder_.push_back(id);
        return;
    }
    launch(id, std::move(transfer));
}

void CurlEngine::admitWaiting() {
    while (!waitingOrder_.empty() && idsByHandle_.size() < kMaxAdmittedRequests) {
        const std::uint64_t id = waitingOrder_.front();
        waitingOrder_.pop_front();
        if (auto found = waiting_.find(id); found != waiting_.end()) {
            std::unique_ptr<CurlTransfer> transfer = std::move(found->second);
            waiting_.erase(found);
            launch(id, std::move(transfer));
        }
    }
}

void CurlEngine::startDownload(std::uint64_t id, DownloadOptions&& options,
                               DownloadStatusCallback&& callback) {
    std::string userAgent = linuxUserAgent(options.request.uaComponents);
    auto transfer = std::make_unique<DownloadTransfer>(id, std::move(options), std::move(callback),
                                                       std::move(userAgent), deliveries_);
    if (!transfer->start(CurlTransfer::Clock::now())) {
        return;
    }
    launch(id, std::move(transfer));
}

void CurlEngine::launch(std::uint64_t id, std::unique_ptr<CurlTransfer> transfer) {
    if (!addHandle(id, *transfer)) {
        return;
    }
    transfers_.emplace(id, std::move(transfer));
}

bool CurlEngine::addHandle(std::uint64_t id, CurlTransfer& transfer) {
    const CURLMcode result = curl_multi_add_handle(multi_.get(), transfer.handle());
    if (result != CURLM_OK) {
        transfer.failed(curl_multi_strerror(result));
        return false;
    }
    idsByHandle_[transfer.handle()] = id;
    return true;
}

void CurlEngine::removeHandle(CurlTransfer& transfer) {
    if (CURL* handle = transfer.handle(); handle != nullptr && idsByHandle_.erase(handle) > 0) {
        curl_multi_remove_handle(multi_.get(), handle);
    }
}

void CurlEngine::cancel(std::uint64_t id, ResultCallback&& callback) {
    bool answer = false;
    if (const auto found = transfers_.find(id); found != transfers_.end()) {
        std::unique_ptr<CurlTransfer> transfer = std::move(found->second);
        transfers_.erase(found);
        removeHandle(*transfer);
        answer = transfer->cancel();
    } else if (const auto queued = waiting_.find(id); queued != waiting_.end()) {
        answer = queued->second->cancel();
        waiting_.erase(queued);
    }
    if (callback) {
        callback(answer);
    }
}

void CurlEngine::setMaxHostConnections(long max) {
    curl_multi_setopt(multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS, max);
}

void CurlEngine::collectFinished() {
    // Read out first: completing a transfer changes the multi handle's message list.
    std::vector<std::pair<CURL*, CURLcode>> finished;
    int remaining = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_.get(), &remaining)) {
        if (message->msg == CURLMSG_DONE) {
            finished.emplace_back(message->easy_handle, message->data.result);
        }
    }
    for (const auto& [handle, result] : finished) {
        const auto entry = idsByHandle_.find(handle);
        if (entry == idsByHandle_.end()) {
            continue;
        }
        const std::uint64_t id = entry->second;
        const auto found = transfers_.find(id);
        std::unique_ptr<CurlTransfer> transfer = std::move(found->second);
        transfers_.erase(found);
        removeHandle(*transfer);
        if (transfer->complete(result) == CurlTransfer::Next::Restart) {
            launch(id, std::move(transfer));
        }
    }
}

void CurlEngine::tickTransfers() {
    const auto now = CurlTransfer::Clock::now();
    std::vector<std::uint64_t> ended;
    for (auto& [id, transfer] : transfers_) {
        if (transfer->tick(now)) {
            ended.push_back(id);
        }
    }
    for (const auto id : ended) {
        const auto found = transfers_.find(id);
        removeHandle(*found->second);
        transfers_.erase(found);
    }
}

int CurlEngine::pollTimeoutMilliseconds() const {
    long curlTimeout = -1;
    curl_multi_timeout(multi_.get(), &curlTimeout);
    long timeout =
        curlTimeout < 0 ? kMaxPollMilliseconds : std::min<long>(curlTimeout, kMaxPollMilliseconds);
    const auto now = CurlTransfer::Clock::now();
    for (const auto& [id, transfer] : transfers_) {
        if (const auto deadline = transfer->nextDeadline()) {
            const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*deadline - now);
            timeout = std::min<long>(timeout, std::max<long>(0, wait.count()));
        }
    }
    return static_cast<int>(timeout);
}

void CurlEngine::shutdown() {
    for (auto& [id, transfer] : transfers_) {
        removeHandle(*transfer);
        transfer->abandon();
    }
    transfers_.clear();
    for (auto& [id, transfer] : waiting_) {
        transfer->abandon();
    }
    waiting_.clear();
    waitingOrder_.clear();
    deliveries_.clear();
    std::vector<Command> dropped;
    {
        std::lock_guard lock(mutex_);
        dropped.swap(commands_);
    }
}

}  // namespace terrane::common
