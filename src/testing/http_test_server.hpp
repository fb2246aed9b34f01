#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "terrane/expected.hpp"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace terrane::common::test {

// A request as the test server received it. Header names are lower-cased; a header sent twice
// keeps both values, in order.
struct ReceivedRequest {
    std::string method;
    std::string path;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // Every value sent under the name (compared without regard to case).
    std::vector<std::string> headerValues(std::string_view name) const;
    // The first value sent under the name.
    optional<std::string> header(std::string_view name) const;
};

// A file the server offers, with the faults a test wants it to show.
struct TestFile {
    std::string content{};
    // Any other status than 200 is sent with the whole content and no range handling.
    int status = 200;
    // Sent as ETag when not empty (quotes included, "W/" for a weak tag).
    std::string etag = "\"v1\"";
    // Sent as Last-Modified when not empty.
    std::string lastModified{};
    // Sent as Content-Encoding when not empty; content is then already encoded.
    std::string contentEncoding{};
    std::string cacheControl{};
    // The first faultyResponses responses break the connection off after this many body bytes.
    optional<std::size_t> dropAfter{};
    // The first faultyResponses responses stop sending after this many body bytes, until
    // release() or the server's end; then the connection is broken off.
    optional<std::size_t> stallAfter{};
    int faultyResponses = 1;
    // Announced as Content-Length instead of the real size: the content is sent, then the
    // connection is broken off.
    optional<std::size_t> announcedLength{};
};

// Deterministic bytes for test files: the same size and seed give the same content.
std::string testContent(std::size_t size, std::uint32_t seed = 1);

// The content as a gzip stream, for tests of decoded bodies.
std::string gzipEncode(std::string_view content);

// An HTTP server on 127.0.0.1 and a port of the system's choosing, on threads of its own, for the
// tests of the HTTP service. Test-only; built on cpp-httplib. "Range: bytes=N-" on a file is
// answered with 206 (416 beyond the end) unless If-Range names another version.
//
// Fixed routes:
//   /echo                  any method; 200, body "echo" (or the request body for a POST),
//                          headers Content-Type, ETag and X-Mixed-Case
//   /status/<code>/json    that status, {"message":"status <code>"} as application/json
//   /status/<code>/plain   that status, "status <code>" as text/plain
//   /slow-head?ms=<n>      waits n ms (or until release()) before answering 200 "slow"
//   /redirect/<n>          n more redirects (302), then 200 "redirected"
//   /redirect-to-file      302 to a file: URL
//   /redirect-loop         302 to itself, every time
//   /huge-head             200 "huge" after a 4 MiB header line
//   /huge-head?lines=<n>   200 "huge" after n header lines of 100 bytes
//   /endless               200 with a chunked body of 64 KiB chunks that never ends
//   /hold                  waits until release() (or the server's end), then 200 "held";
//                          heldNow() and heldAtMost() count the requests waiting there
// Other paths serve the files given to serve(), else 404.
//
// Every member may be called from any thread. Destruction releases every waiting request, stops
// the server and joins its threads.
class HttpTestServer {
  public:
    HttpTestServer();
    ~HttpTestServer();
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    // cpp-httplib is a build requirement, so every build has the server.
    static bool isAvailable() { return true; }

    std::uint16_t port() const { return port_; }
    // "http://127.0.0.1:<port>" followed by the path.
    std::string url(std::string_view path) const;

    // Offers the file under the path, replacing an earlier one there.
    void serve(const std::string& path, TestFile file);

    // Lets every stalled answer and every request waiting at /hold or /slow-head go on.
    void release();
    int heldNow() const;
    int heldAtMost() const;

    // Every request received so far, in order of arrival.
    std::vector<ReceivedRequest> requests() const;
    std::vector<ReceivedRequest> requestsFor(std::string_view path) const;

  private:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;
    struct FileState {
        TestFile file;
        int served = 0;
    };

    void on(const std::string& pattern, Handler handler);
    void serveFile(const httplib::Request& request, httplib::Response& response);
    // Waits until release(), the server's end or the limit; `counted` counts it as held.
    void waitForRelease(std::chrono::milliseconds limit, bool counted = false);

    std::unique_ptr<httplib::Server> server_;
    std::uint16_t port_ = 0;
    std::thread thread_;

    mutable std::mutex mutex_;
    std::condition_variable released_;
    bool stopping_ = false;
    int releases_ = 0;
    int held_ = 0;
    int heldAtMost_ = 0;
    std::map<std::string, FileState, std::less<>> files_;
    std::vector<ReceivedRequest> requests_;
};

}  // namespace terrane::common::test
