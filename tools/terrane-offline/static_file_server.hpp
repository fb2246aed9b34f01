#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tool_error.hpp"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace terrane::tool {

struct StaticFileServerOptions {
    std::filesystem::path root;
    // 0: a free port of the system's choosing.
    std::uint16_t port = 0;
    // Sent as "Cache-Control: max-age=<seconds>" with every file: the lease of a downloaded pack.
    std::int64_t maxAge = 3600;
    // Body bytes per second per connection; 0 for no limit. Lets a demo show progress and a test
    // catch a download half-way.
    std::uint64_t rateLimit = 0;
    // Appends one line per response when not empty (see StaticFileServer).
    std::string accessLog;
    // Also print each access-log line to stdout.
    bool echoRequests = false;
};

// A file server for catalogue trees on cpp-httplib, on 127.0.0.1 only.
//
// GET and HEAD of regular files below the root, with a strong ETag (size and modification time),
// Last-Modified, Cache-Control max-age, single byte ranges ("Range: bytes=N-", "N-M", "-N") with
// If-Range (a range is ignored when the validator no longer matches), If-None-Match (304), and
// keep-alive. The query string, where clients put their access token, is ignored and never logged.
// Anything outside the root, directories and missing files are 404 with a JSON
// {"message": ...} body; other methods 405.
//
// Access log lines: METHOD PATH STATUS BODY-BYTES-SENT range=<Range|-> if-range=<...|->
// if-none-match=<...|->, written when the response ends (also when the client went away
// mid-body, with the bytes sent until then).
//
// Threads: the listening thread and httplib's pool, all owned and joined by the server. start(),
// port(), url() and the counters may be used from any thread; the destructor stops the server
// and must not run on one of its own threads.
class StaticFileServer {
  public:
    static Result<std::unique_ptr<StaticFileServer>> start(StaticFileServerOptions options);

    ~StaticFileServer();
    StaticFileServer(const StaticFileServer&) = delete;
    StaticFileServer& operator=(const StaticFileServer&) = delete;

    std::uint16_t port() const { return port_; }
    // "http://127.0.0.1:<port>"
    std::string url() const;

    std::uint64_t requestsServed() const { return requests_.load(); }
    std::uint64_t bodyBytesSent() const { return bodyBytes_.load(); }

    // Stops accepting, breaks off paced transfers and joins every thread. Idempotent.
    void stop();

  private:
    struct Entry;

    explicit StaticFileServer(StaticFileServerOptions options);

    void serveFile(const httplib::Request& request, httplib::Response& response);
    // Sleeps until `sent` bytes are due under the rate limit; false when the server stops.
    bool pace(std::chrono::steady_clock::time_point start, std::uint64_t sent);
    void logAccess(const Entry& entry, int status, std::uint64_t bodyBytes);

    StaticFileServerOptions options_;
    std::filesystem::path root_;
    std::uint16_t port_ = 0;
    std::unique_ptr<httplib::Server> server_;
    std::thread listener_;
    std::atomic<bool> listenerDone_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<std::uint64_t> requests_{0};
    std::atomic<std::uint64_t> bodyBytes_{0};

    std::mutex paceMutex_;
    std::condition_variable paceWake_;

    // The body bytes sent so far of each response under way, for its access-log line.
    std::mutex transfersMutex_;
    std::map<const httplib::Response*, std::shared_ptr<std::atomic<std::uint64_t>>> transfers_;

    std::mutex logMutex_;
    int logFile_ = -1;
};

}  // namespace terrane::tool
