#include "testing/http_test_server.hpp"

#include <strings.h>

#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <thread>

#ifdef TERRANE_HAVE_HTTP_TEST_SERVER
// The Debian library is built with these; its classes change shape without them.
#ifndef CPPHTTPLIB_OPENSSL_SUPPORT
#define CPPHTTPLIB_OPENSSL_SUPPORT
#endif
#ifndef CPPHTTPLIB_ZLIB_SUPPORT
#define CPPHTTPLIB_ZLIB_SUPPORT
#endif
#ifndef CPPHTTPLIB_BROTLI_SUPPORT
#define CPPHTTPLIB_BROTLI_SUPPORT
#endif
#include <httplib.h>
#endif

namespace terrane::common::test {

namespace {

std::uint32_t crc32Of(std::string_view data) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (const char character : data) {
        crc ^= static_cast<unsigned char>(character);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    return ~crc;
}

std::uint32_t adler32Of(std::string_view data) {
    std::uint32_t a = 1;
    std::uint32_t b = 0;
    for (const char character : data) {
        a = (a + static_cast<unsigned char>(character)) % 65521u;
        b = (b + a) % 65521u;
    }
    return (b << 16) | a;
}

void appendLittleEndian(std::string& out, std::uint32_t value, int bytes) {
    for (int index = 0; index < bytes; ++index) {
        out.push_back(static_cast<char>((value >> (8 * index)) & 0xFFu));
    }
}

// Deflate "stored" blocks: valid for every inflater, and simple enough to write by hand.
std::string storedBlocks(std::string_view content) {
    std::string out;
    do {
        const std::size_t length = content.size() < 65535 ? content.size() : 65535;
        const bool last = length == content.size();
        out.push_back(last ? 1 : 0);
        appendLittleEndian(out, static_cast<std::uint32_t>(length), 2);
        appendLittleEndian(out, static_cast<std::uint32_t>(~length & 0xFFFFu), 2);
        out.append(content.substr(0, length));
        content.remove_prefix(length);
    } while (!content.empty());
    return out;
}

}  // namespace

std::string testContent(std::size_t size, std::uint32_t seed) {
    std::string content(size, '\0');
    std::uint32_t state = seed * 2654435761u + 1;
    for (auto& byte : content) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<char>(state >> 24);
    }
    return content;
}

std::string gzipEncode(std::string_view content) {
    std::string out("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\xff", 10);
    out += storedBlocks(content);
    appendLittleEndian(out, crc32Of(content), 4);
    appendLittleEndian(out, static_cast<std::uint32_t>(content.size()), 4);
    return out;
}

std::string zlibEncode(std::string_view content) {
    std::string out("\x78\x01", 2);
    out += storedBlocks(content);
    const std::uint32_t adler = adler32Of(content);
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<char>((adler >> shift) & 0xFFu));
    }
    return out;
}

std::vector<std::string> ReceivedRequest::headerValues(std::string_view name) const {
    std::vector<std::string> values;
    for (const auto& [key, value] : headers) {
        if (key.size() == name.size() && strncasecmp(key.data(), name.data(), name.size()) == 0) {
            values.push_back(value);
        }
    }
    return values;
}

optional<std::string> ReceivedRequest::header(std::string_view name) const {
    auto values = headerValues(name);
    if (values.empty()) {
        return nullopt;
    }
    return values.front();
}

#ifdef TERRANE_HAVE_HTTP_TEST_SERVER

class HttpTestServer::Impl {
  public:
    Impl() {
        // Enough workers for every request a test keeps waiting at once, plus keep-alive sockets.
        server_.new_task_queue = [] { return new httplib::ThreadPool(48); };
        server_.set_keep_alive_timeout(1);
        const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
            // Ranges are answered here, not by the library, so that tests control them fully.
            const_cast<httplib::Request&>(request).ranges.clear();
            // Recorded here rather than before routing: only now has the body been read.
            record(request);
            dispatch(request, response);
        };
        server_.Get(".*", handler);
        server_.Post(".*", handler);

        TestFile drop;
        drop.content = testContent(64 * 1024, 7);
        drop.dropAfter = 16 * 1024;
        drop.faultyResponses = 1 << 30;
        files_["/drop-mid-body"] = FileState{drop, 0};
        TestFile stall;
        stall.content = testContent(64 * 1024, 8);
        stall.stallAfter = 16 * 1024;
        stall.faultyResponses = 1 << 30;
        files_["/stall-mid-body"] = FileState{stall, 0};
        TestFile changing;
        changing.content = testContent(64 * 1024, 9);
        changing.newVersionEachRequest = true;
        files_["/changing-etag"] = FileState{changing, 0};

        port_ = static_cast<std::uint16_t>(server_.bind_to_any_port("127.0.0.1"));
        if (port_ == 0) {
            std::fputs("HttpTestServer: cannot bind 127.0.0.1\n", stderr);
            std::abort();
        }
        // The socket listens already: clients may connect before the thread runs.
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        // stop() does nothing to a server whose loop has not begun yet, and the join in the
        // destructor would then wait forever.
        while (!server_.is_running()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    ~Impl() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        released_.notify_all();
        server_.stop();
        thread_.join();
    }

    std::uint16_t port() const { return port_; }

    void serve(const std::string& path, TestFile file) {
        std::lock_guard lock(mutex_);
        files_[path] = FileState{std::move(file), 0};
    }

    void releaseStalls() {
        std::lock_guard lock(mutex_);
        ++stallGeneration_;
        released_.notify_all();
    }

    void releaseHeld() {
        std::lock_guard lock(mutex_);
        ++holdGeneration_;
        released_.notify_all();
    }

    int heldNow() const {
        std::lock_guard lock(mutex_);
        return held_;
    }

    int heldAtMost() const {
        std::lock_guard lock(mutex_);
        return heldAtMost_;
    }

    std::vector<ReceivedRequest> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

  private:
    struct FileState {
        TestFile file;
        int served = 0;
    };

    void record(const httplib::Request& request) {
        ReceivedRequest received{request.method, request.path, {}, request.body};
        for (const auto& [name, value] : request.headers) {
            std::string lowered = name;
            for (auto& character : lowered) {
                character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
            }
            received.headers.emplace_back(std::move(lowered), value);
        }
        std::lock_guard lock(mutex_);
        requests_.push_back(std::move(received));
    }

    void dispatch(const httplib::Request& request, httplib::Response& response) {
        const std::string& path = request.path;
        if (path == "/echo") {
            response.set_header("ETag", "\"echo\"");
            response.set_header("X-Mixed-Case", "Value");
            response.set_content(request.method == "POST" ? request.body : "echo",
                                 "application/octet-stream");
        } else if (path.starts_with("/status/")) {
            const std::string rest = path.substr(8);
            const auto slash = rest.find('/');
            const int code = std::atoi(rest.substr(0, slash).c_str());
            const std::string kind = slash == std::string::npos ? "plain" : rest.substr(slash + 1);
            response.status = code;
            if (kind == "json") {
                response.set_content("{\"message\":\"status " + std::to_string(code) + "\"}",
                                     "application/json");
            } else {
                response.set_content("status " + std::to_string(code), "text/plain");
            }
        } else if (path == "/slow-head") {
            const int milliseconds =
                request.has_param("ms") ? std::atoi(request.get_param_value("ms").c_str()) : 2000;
            waitFor(std::chrono::milliseconds(milliseconds));
            response.set_content("slow", "application/octet-stream");
        } else if (path.starts_with("/redirect/")) {
            const int remaining = std::atoi(path.substr(10).c_str());
            if (remaining > 0) {
                response.set_redirect("/redirect/" + std::to_string(remaining - 1));
            } else {
                response.set_content("redirected", "application/octet-stream");
            }
        } else if (path == "/redirect-to-file") {
            response.set_redirect("file:///etc/hostname");
        } else if (path == "/redirect-loop") {
            response.set_redirect("/redirect-loop");
        } else if (path == "/huge-head") {
            if (request.has_param("lines")) {
                const int lines = std::atoi(request.get_param_value("lines").c_str());
                for (int line = 0; line < lines; ++line) {
                    response.set_header("X-Padding-" + std::to_string(line), std::string(100, 'p'));
                }
            } else {
                response.set_header("X-Padding", std::string(4 * 1024 * 1024, 'p'));
            }
            response.set_content("huge", "application/octet-stream");
        } else if (path == "/endless") {
            const auto chunk = std::make_shared<std::string>(testContent(64 * 1024, 10));
            response.set_chunked_content_provider(
                "application/octet-stream", [this, chunk](std::size_t, httplib::DataSink& sink) {
                    return !isStopping() && sink.write(chunk->data(), chunk->size());
                });
        } else if (path == "/gzip") {
            response.set_header("Content-Encoding", "gzip");
            response.set_content(gzipEncode("decoded body"), "application/octet-stream");
        } else if (path == "/deflate") {
            response.set_header("Content-Encoding", "deflate");
            response.set_content(zlibEncode("decoded body"), "application/octet-stream");
        } else if (path == "/hold") {
            hold();
            response.set_content("held", "application/octet-stream");
        } else {
            serveFile(request, response);
        }
    }

    bool isStopping() const {
        std::lock_guard lock(mutex_);
        return stopping_;
    }

    void waitFor(std::chrono::milliseconds duration) {
        std::unique_lock lock(mutex_);
        released_.wait_for(lock, duration, [this] { return stopping_; });
    }

    void hold() {
        std::unique_lock lock(mutex_);
        const int generation = holdGeneration_;
        ++held_;
        heldAtMost_ = std::max(heldAtMost_, held_);
        released_.wait_for(lock, std::chrono::seconds(30),
                           [&] { return stopping_ || holdGeneration_ != generation; });
        --held_;
    }

    void serveFile(const httplib::Request& request, httplib::Response& response) {
        std::unique_lock lock(mutex_);
        const auto found = files_.find(request.path);
        if (found == files_.end()) {
            response.status = 404;
            response.set_content("not found", "text/plain");
            return;
        }
        FileState& state = found->second;
        const int index = state.served++;
        TestFile file = state.file;
        lock.unlock();

        if (file.newVersionEachRequest) {
            file.etag = "\"v" + std::to_string(index + 1) + "\"";
            file.content =
                testContent(file.content.size(), static_cast<std::uint32_t>(index + 100));
        }
        if (file.headDelay.count() > 0) {
            waitFor(file.headDelay);
        }
        if (!file.etag.empty()) {
            response.set_header("ETag", file.etag);
        }
        if (!file.lastModified.empty()) {
            response.set_header("Last-Modified", file.lastModified);
        }
        if (!file.contentEncoding.empty()) {
            response.set_header("Content-Encoding", file.contentEncoding);
        }
        if (!file.cacheControl.empty()) {
            response.set_header("Cache-Control", file.cacheControl);
        }
        response.set_header("Accept-Ranges", "bytes");

        const std::size_t size = file.content.size();
        std::size_t first = 0;
        const std::string range = request.get_header_value("Range");
        const std::string ifRange = request.get_header_value("If-Range");
        const bool rangeApplies = file.status == 200 && file.honourRanges &&
                                  range.starts_with("bytes=") &&
                                  (ifRange.empty() || ifRange == file.etag ||
                                   (!file.lastModified.empty() && ifRange == file.lastModified));
        if (rangeApplies) {
            first = std::strtoull(range.c_str() + 6, nullptr, 10);
            if (first >= size) {
                response.status = 416;
                response.set_header("Content-Range", "bytes */" + std::to_string(size));
                response.set_content("range not satisfiable", "text/plain");
                return;
            }
            response.status = 206;
            response.set_header("Content-Range", "bytes " + std::to_string(first) + "-" +
                                                     std::to_string(size - 1) + "/" +
                                                     std::to_string(size));
        } else {
            response.status = file.status;
        }

        const bool faulty = index < file.faultyResponses;
        const optional<std::size_t> dropAfter = faulty ? file.dropAfter : nullopt;
        const optional<std::size_t> stallAfter = faulty ? file.stallAfter : nullopt;
        auto body = std::make_shared<std::string>(file.content.substr(first));
        if (file.announcedLength) {
            response.set_content_provider(
                *file.announcedLength, file.contentType,
                [body](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                    if (offset < body->size()) {
                        sink.write(body->data() + offset, body->size() - offset);
                    }
                    return false;  // short of the announced length: breaks the connection off
                });
            return;
        }
        response.set_content_provider(
            body->size(), file.contentType,
            [this, body, dropAfter, stallAfter](std::size_t offset, std::size_t length,
                                                httplib::DataSink& sink) {
                constexpr std::size_t kChunk = 16 * 1024;
                std::size_t end = offset + std::min(length, kChunk);
                const optional<std::size_t> limit = dropAfter ? dropAfter : stallAfter;
                if (limit && end > *limit) {
                    end = std::max(offset, *limit);
                }
                if (end > offset && !sink.write(body->data() + offset, end - offset)) {
                    return false;
                }
                if (limit && end == *limit) {
                    if (stallAfter) {
                        stall();
                    }
                    return false;  // breaks the connection off
                }
                return true;
            });
    }

    void stall() {
        std::unique_lock lock(mutex_);
        const int generation = stallGeneration_;
        released_.wait_for(lock, std::chrono::seconds(30),
                           [&] { return stopping_ || stallGeneration_ != generation; });
    }

    httplib::Server server_;
    std::uint16_t port_ = 0;
    std::thread thread_;

    mutable std::mutex mutex_;
    std::condition_variable released_;
    bool stopping_ = false;
    int stallGeneration_ = 0;
    int holdGeneration_ = 0;
    int held_ = 0;
    int heldAtMost_ = 0;
    std::map<std::string, FileState> files_;
    std::vector<ReceivedRequest> requests_;
};

bool HttpTestServer::isAvailable() {
    return true;
}

#else

// Without cpp-httplib every test that needs the server skips; nothing may construct it.
class HttpTestServer::Impl {
  public:
    Impl() {
        std::fputs("HttpTestServer: built without cpp-httplib\n", stderr);
        std::abort();
    }
    std::uint16_t port() const { return 0; }
    void serve(const std::string&, TestFile) {}
    void releaseStalls() {}
    void releaseHeld() {}
    int heldNow() const { return 0; }
    int heldAtMost() const { return 0; }
    std::vector<ReceivedRequest> requests() const { return {}; }
};

bool HttpTestServer::isAvailable() {
    return false;
}

#endif

HttpTestServer::HttpTestServer() : impl_(std::make_unique<Impl>()) {
}

HttpTestServer::~HttpTestServer() = default;

std::uint16_t HttpTestServer::port() const {
    return impl_->port();
}

std::string HttpTestServer::url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(port()) + std::string(path);
}

void HttpTestServer::serve(const std::string& path, TestFile file) {
    impl_->serve(path, std::move(file));
}

void HttpTestServer::releaseStalls() {
    impl_->releaseStalls();
}

void HttpTestServer::releaseHeld() {
    impl_->releaseHeld();
}

int HttpTestServer::heldNow() const {
    return impl_->heldNow();
}

int HttpTestServer::heldAtMost() const {
    return impl_->heldAtMost();
}

std::vector<ReceivedRequest> HttpTestServer::requests() const {
    return impl_->requests();
}

std::vector<ReceivedRequest> HttpTestServer::requestsFor(std::string_view path) const {
    std::vector<ReceivedRequest> matching;
    for (auto& request : requests()) {
        if (request.path == path) {
            matching.push_back(std::move(request));
        }
    }
    return matching;
}

}  // namespace terrane::common::test
