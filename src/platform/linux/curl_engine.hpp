#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/linux/curl_handles.hpp"
#include "platform/linux/curl_transfer.hpp"
#include "platform/linux/delivery_queue.hpp"
#include "terrane/http/http_service_interface.hpp"

namespace terrane::common {

// The serial queue of the Linux HTTP service: one libcurl multi handle driven by exactly one
// thread, which owns every transfer and every piece of bookkeeping and runs every callback.
// Other threads only hand it commands; the thread wakes for them, for network events and for the
// transfers' own deadlines (progress, inactivity), and never blocks on anything else.
//
// Lifetime: the thread starts in the constructor; the destructor stops it and joins it. Transfers
// still running then are abandoned without a final callback (downloads keep their resume data),
// and commands not yet run are dropped.
class CurlEngine {
  public:
    using Command = std::move_only_function<void()>;

    // The name the engine's thread carries (at most 15 characters, the kernel's limit).
    static constexpr const char* threadName = "terrane-http";

    // The cap on connections per host until setMaxHostConnections says otherwise.
    static constexpr long kDefaultMaxHostConnections = 8;
    // How many plain requests run in the multi handle at once; later ones wait their turn in the
    // engine, in order. libcurl walks its own list of waiting handles on every removal and the
    // engine walks its transfers on every round, so ten thousand requests handed over at once
    // (a lease check of every stored pack) would cost time quadratic in their number. Downloads
    // are not held back: their inactivity limit runs from their start.
    static constexpr std::size_t kMaxAdmittedRequests = 256;

    CurlEngine();
    // Not from the engine thread (a callback must not let go of the last service holder).
    ~CurlEngine();
    CurlEngine(const CurlEngine&) = delete;
    CurlEngine& operator=(const CurlEngine&) = delete;

    // Queues a command for the engine thread and wakes it. Any thread, callbacks included.
    void post(Command command);
    // Whether the caller runs on the engine thread, that is inside one of its callbacks.
    bool isEngineThread() const;

    // The commands. Engine thread only.
    void startRequest(std::uint64_t id, HttpRequest&& request, HttpResponseCallback&& callback);
    void startDownload(std::uint64_t id, DownloadOptions&& options,
                       DownloadStatusCallback&& callback);
    // Answers false when no transfer runs under the id. A cancelled plain request receives
    // RequestCancelled after the answer; a cancelled download hears nothing more, and the answer
    // says whether resume data was stored. The answer is given before this returns.
    void cancel(std::uint64_t id, ResultCallback&& callback);
    // Applies to connections opened from now on; 0 lifts the cap.
    void setMaxHostConnections(long max);

  private:
    void run();
    // Runs the queued commands; true once the engine is to stop.
    bool runCommands();
    void collectFinished();
    void tickTransfers();
    int pollTimeoutMilliseconds() const;
    // Puts the transfer's handle to work; on failure the transfer is told and dropped.
    void launch(std::uint64_t id, std::unique_ptr<CurlTransfer> transfer);
    bool addHandle(std::uint64_t id, CurlTransfer& transfer);
    // Launches waiting requests while fewer than kMaxAdmittedRequests handles run.
    void admitWaiting();
    void removeHandle(CurlTransfer& transfer);
    void shutdown();

    CurlMultiHandle multi_;

    std::mutex mutex_;
    std::vector<Command> commands_;  // guarded by mutex_
    bool stopping_ = false;          // guarded by mutex_

    // Engine thread only.
    std::unordered_map<std::uint64_t, std::unique_ptr<CurlTransfer>> transfers_;
    std::unordered_map<CURL*, std::uint64_t> idsByHandle_;
    // Started requests not yet in the multi handle, and their order (a cancelled one's id stays
    // in the order until its turn comes and is skipped).
    std::unordered_map<std::uint64_t, std::unique_ptr<CurlTransfer>> waiting_;
    std::deque<std::uint64_t> waitingOrder_;
    DeliveryQueue deliveries_;

    // Last, so that everything above exists before the thread starts.
    std::thread thread_;
};

}  // namespace terrane::common
