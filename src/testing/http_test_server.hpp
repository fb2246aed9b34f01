#pragma once

#include <strings.h>

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
#include <utility>
#include <vector>

#include "terrane/expected.hpp"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace terrane::common::test {

struct NoCase {
    bool operator()(const std::string& a, const std::string& b) const {
        return ::strcasecmp(a.c_str(), b.c_str()) < 0;
    }
};

// A request as the test server received it, header names in any case.
struct ReceivedRequest {
    std::string method;
    std::string path;
    std::multimap<std::string, std::string, NoCase> headers;
    std::string body;

    // The first value sent under the name.
    optional<std::string> header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? nullopt : optional<std::string>(found->second);
    }
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
    // Sent as they are (Content-Encoding with content already encoded, Location, padding...).
    std::vector<std::pair<std::string, std::string>> headers{};
    // The head waits until release() or the server's end.
    bool holdHead = false;
    // The first faultyResponses responses break the connection off after this many body bytes.
    optional<std::size_t> dropAfter{};
    // The first faultyResponses responses stop sending after this many body bytes, until
    // release() or the server's end; then the connection is broken off.
    optional<std::size_t> stallAfter{};
    int faultyResponses = 1;
};

// Deterministic bytes for test files: the same size and seed give the same content.
std::string testContent(std::size_t size, std::uint32_t seed = 1);

// The content as a gzip stream, for tests of decoded bodies.
std::string gzipEncode(std::string_view content);

// An HTTP server on 127.0.0.1 and a port of the system's choosing, on threads of its own, for the
// tests of the HTTP service. Test-only; built on cpp-httplib. It serves the files given to
// serve() (else 404) to GET, HEAD and POST; "Range: bytes=N-" on a file is answered with 206 (416
// beyond the end) unless If-Range names another version.
//
// Every member may be called from any thread. Destruction releases every waiting answer, stops
// the server and joins its threads.
class HttpTestServer {
  public:
    HttpTestServer();
    ~HttpTestServer();
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    // "http://127.0.0.1:<port>" followed by the path.
    std::string url(std::string_view path) const;

    // Offers the file under the path, replacing an earlier one there.
    void serve(const std::string& path, TestFile file);

    // Lets every stalled or held answer go on.
    void release();
    // The answers held or stalled now.
    int heldNow() const;

    // Every request received so far for the path, in order of arrival.
    std::vector<ReceivedRequest> requestsFor(std::string_view path) const;

  private:
    struct FileState {
        TestFile file;
        int served = 0;
    };

    void serveFile(const httplib::Request& request, httplib::Response& response);
    // Waits until release() or the server's end, counted in heldNow().
    void waitForRelease();

    std::unique_ptr<httplib::Server> server_;
    std::uint16_t port_ = 0;
    std::thread thread_;

    mutable std::mutex mutex_;
    std::condition_variable released_;
    bool stopping_ = false;
    int releases_ = 0;
    int held_ = 0;
    std::map<std::string, FileState, std::less<>> files_;
    std::vector<ReceivedRequest> requests_;
};

}  // namespace terrane::common::test
