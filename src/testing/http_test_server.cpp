#include "testing/http_test_server.hpp"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <random>
#include <stdexcept>

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

#include "testing/loopback.hpp"

namespace terrane::common::test {

namespace {
constexpr std::size_t kChunk = 16 * 1024;
}  // namespace

std::string testContent(std::size_t size, std::uint32_t seed) {
    std::string content(size, '\0');
    std::minstd_rand random(seed);
    std::ranges::generate(content, [&] { return static_cast<char>(random() >> 16); });
    return content;
}

std::string gzipEncode(std::string_view content) {
    std::string out;
    httplib::detail::gzip_compressor().compress(content.data(), content.size(), true,
                                                [&out](const char* data, std::size_t size) {
                                                    out.append(data, size);
                                                    return true;
                                                });
    return out;
}

HttpTestServer::HttpTestServer() : server_(std::make_unique<httplib::Server>()) {
    // Enough workers for every request a test keeps waiting at once, plus keep-alive sockets.
    server_->new_task_queue = [] { return new httplib::ThreadPool(48); };
    server_->set_keep_alive_timeout(1);
    const auto handler = std::bind_front(&HttpTestServer::serveFile, this);
    server_->Get(".*", handler).Post(".*", handler);
    port_ = static_cast<std::uint16_t>(server_->bind_to_any_port("127.0.0.1"));
    if (port_ == 0) {
        throw std::runtime_error("HttpTestServer: cannot bind 127.0.0.1");
    }
    // The socket listens already: clients may connect before the thread runs.
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    // stop() does nothing to a server whose loop has not begun yet, and the join in the destructor
    // would then wait forever.
    while (!server_->is_running()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

HttpTestServer::~HttpTestServer() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    released_.notify_all();
    server_->stop();
    thread_.join();
}

std::string HttpTestServer::url(std::string_view path) const {
    return loopbackUrl(port_, path);
}

void HttpTestServer::serve(const std::string& path, TestFile file) {
    std::lock_guard lock(mutex_);
    files_[path] = FileState{std::move(file)};
}

void HttpTestServer::release() {
    std::lock_guard lock(mutex_);
    ++releases_;
    released_.notify_all();
}

int HttpTestServer::heldNow() const {
    std::lock_guard lock(mutex_);
    return held_;
}

std::vector<ReceivedRequest> HttpTestServer::requestsFor(std::string_view path) const {
    std::lock_guard lock(mutex_);
    std::vector<ReceivedRequest> matching;
    std::copy_if(requests_.begin(), requests_.end(), std::back_inserter(matching),
                 [path](const ReceivedRequest& request) { return request.path == path; });
    return matching;
}

void HttpTestServer::waitForRelease() {
    std::unique_lock lock(mutex_);
    const int generation = releases_;
    ++held_;
    released_.wait(lock, [&] { return stopping_ || releases_ != generation; });
    --held_;
}

void HttpTestServer::serveFile(const httplib::Request& request, httplib::Response& response) {
    // Recorded here rather than before routing: only now has the body been read.
    std::unique_lock lock(mutex_);
    requests_.push_back(ReceivedRequest{request.method,
                                        request.path,
                                        {request.headers.begin(), request.headers.end()},
                                        request.body});
    const auto found = files_.find(request.path);
    if (found == files_.end()) {
        response.status = 404;
        return;
    }
    const bool faulty = found->second.served++ < found->second.file.faultyResponses;
    const TestFile file = found->second.file;
    lock.unlock();

    if (file.holdHead) {
        waitForRelease();
    }
    for (const auto& [name, value] : file.headers) {
        response.set_header(name, value);
    }
    for (const auto& [name, value] : {std::pair{"ETag", file.etag},
                                      {"Last-Modified", file.lastModified},
                                      {"Accept-Ranges", std::string("bytes")}}) {
        if (!value.empty()) {
            response.set_header(name, value);
        }
    }
    // Ranges are answered here, not by the library, so that tests control them fully.
    const_cast<httplib::Request&>(request).ranges.clear();
    const auto body = std::make_shared<std::string>(file.content);
    const std::string range = request.get_header_value("Range");
    const std::string ifRange = request.get_header_value("If-Range");
    response.status = file.status;
    if (file.status == 200 && range.starts_with("bytes=") &&
        (ifRange.empty() || ifRange == file.etag || ifRange == file.lastModified)) {
        const std::size_t first = std::strtoull(range.c_str() + 6, nullptr, 10);
        const std::string size = std::to_string(body->size());
        response.status = first < body->size() ? 206 : 416;
        response.set_header("Content-Range", first < body->size()
                                                 ? "bytes " + std::to_string(first) + "-" +
                                                       std::to_string(body->size() - 1) + "/" + size
                                                 : "bytes */" + size);
        body->erase(0, std::min(first, body->size()));
    }
    if (body->empty()) {
        return;  // a content provider of no length would never be asked, and the answer hang
    }
    const optional<std::size_t> limit = !faulty          ? nullopt
                                        : file.dropAfter ? file.dropAfter
                                                         : file.stallAfter;
    const bool stalls = faulty && file.stallAfter;
    // Sends the next piece from the offset; false breaks the connection off.
    response.set_content_provider(
        body->size(), "application/octet-stream",
        [this, body, limit, stalls](std::size_t offset, std::size_t, httplib::DataSink& sink) {
            const std::size_t end = std::max(
                offset, std::min({offset + kChunk, body->size(), limit.value_or(body->size())}));
            if (end > offset && !sink.write(body->data() + offset, end - offset)) {
                return false;
            }
            if (limit && end == *limit) {
                if (stalls) {
                    waitForRelease();
                }
                return false;
            }
            return true;
        });
}

}  // namespace terrane::common::test
