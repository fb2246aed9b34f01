#include "testing/http_test_server.hpp"

#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>

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
    std::string out;
    httplib::detail::gzip_compressor().compress(content.data(), content.size(), true,
                                                [&out](const char* data, std::size_t size) {
                                                    out.append(data, size);
                                                    return true;
                                                });
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

HttpTestServer::HttpTestServer() : server_(std::make_unique<httplib::Server>()) {
    // Enough workers for every request a test keeps waiting at once, plus keep-alive sockets.
    server_->new_task_queue = [] { return new httplib::ThreadPool(48); };
    server_->set_keep_alive_timeout(1);
    constexpr auto kBinary = "application/octet-stream";
    on("/echo", [](const httplib::Request& request, httplib::Response& response) {
        response.set_header("ETag", "\"echo\"");
        response.set_header("X-Mixed-Case", "Value");
        response.set_content(request.method == "POST" ? request.body : "echo", kBinary);
    });
    on(R"(/status/(\d+)/(json|plain))",
       [](const httplib::Request& request, httplib::Response& response) {
           const std::string code = request.matches[1];
           response.status = std::stoi(code);
           if (request.matches[2] == "json") {
               response.set_content("{\"message\":\"status " + code + "\"}", "application/json");
           } else {
               response.set_content("status " + code, "text/plain");
           }
       });
    on("/slow-head", [this](const httplib::Request& request, httplib::Response& response) {
        waitForRelease(std::chrono::milliseconds(std::stoi(request.get_param_value("ms"))));
        response.set_content("slow", kBinary);
    });
    on(R"(/redirect/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
        const int remaining = std::stoi(request.matches[1]);
        if (remaining > 0) {
            response.set_redirect("/redirect/" + std::to_string(remaining - 1));
        } else {
            response.set_content("redirected", kBinary);
        }
    });
    on("/redirect-to-file", [](const httplib::Request&, httplib::Response& response) {
        response.set_redirect("file:///etc/hostname");
    });
    on("/redirect-loop", [](const httplib::Request&, httplib::Response& response) {
        response.set_redirect("/redirect-loop");
    });
    on("/huge-head", [](const httplib::Request& request, httplib::Response& response) {
        if (request.has_param("lines")) {
            for (int line = 0; line < std::stoi(request.get_param_value("lines")); ++line) {
                response.set_header("X-Padding-" + std::to_string(line), std::string(100, 'p'));
            }
        } else {
            response.set_header("X-Padding", std::string(4 * 1024 * 1024, 'p'));
        }
        response.set_content("huge", kBinary);
    });
    on("/endless", [this](const httplib::Request&, httplib::Response& response) {
        const auto chunk = std::make_shared<std::string>(testContent(64 * 1024, 10));
        response.set_chunked_content_provider(kBinary,
                                              [this, chunk](std::size_t, httplib::DataSink& sink) {
                                                  {
                                                      std::lock_guard lock(mutex_);
                                                      if (stopping_) {
                                                          return false;
                                                      }
                                                  }
                                                  return sink.write(chunk->data(), chunk->size());
                                              });
    });
    on("/hold", [this](const httplib::Request&, httplib::Response& response) {
        waitForRelease(std::chrono::seconds(30), true);
        response.set_content("held", kBinary);
    });
    on(".*", [this](const httplib::Request& request, httplib::Response& response) {
        serveFile(request, response);
    });

    port_ = static_cast<std::uint16_t>(server_->bind_to_any_port("127.0.0.1"));
    if (port_ == 0) {
        std::fputs("HttpTestServer: cannot bind 127.0.0.1\n", stderr);
        std::abort();
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
    files_[path] = FileState{std::move(file), 0};
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

int HttpTestServer::heldAtMost() const {
    std::lock_guard lock(mutex_);
    return heldAtMost_;
}

std::vector<ReceivedRequest> HttpTestServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
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

void HttpTestServer::on(const std::string& pattern, Handler handler) {
    const auto recorded = [this, handler](const httplib::Request& request,
                                          httplib::Response& response) {
        // Ranges are answered here, not by the library, so that tests control them fully.
        const_cast<httplib::Request&>(request).ranges.clear();
        // Recorded here rather than before routing: only now has the body been read.
        ReceivedRequest received{request.method, request.path, {}, request.body};
        for (const auto& [name, value] : request.headers) {
            std::string lowered = name;
            for (auto& character : lowered) {
                character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
            }
            received.headers.emplace_back(std::move(lowered), value);
        }
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(std::move(received));
        }
        handler(request, response);
    };
    server_->Get(pattern, recorded);
    server_->Post(pattern, recorded);
}

void HttpTestServer::waitForRelease(std::chrono::milliseconds limit, bool counted) {
    std::unique_lock lock(mutex_);
    const int generation = releases_;
    if (counted) {
        heldAtMost_ = std::max(heldAtMost_, ++held_);
    }
    released_.wait_for(lock, limit, [&] { return stopping_ || releases_ != generation; });
    if (counted) {
        --held_;
    }
}

void HttpTestServer::serveFile(const httplib::Request& request, httplib::Response& response) {
    std::unique_lock lock(mutex_);
    const auto found = files_.find(request.path);
    if (found == files_.end()) {
        response.status = 404;
        response.set_content("not found", "text/plain");
        return;
    }
    const bool faulty = found->second.served++ < found->second.file.faultyResponses;
    const TestFile file = found->second.file;
    lock.unlock();

    for (const auto& [name, value] : {std::pair{"ETag", file.etag},
                                      {"Last-Modified", file.lastModified},
                                      {"Content-Encoding", file.contentEncoding},
                                      {"Cache-Control", file.cacheControl}}) {
        if (!value.empty()) {
            response.set_header(name, value);
        }
    }
    response.set_header("Accept-Ranges", "bytes");

    const std::size_t size = file.content.size();
    std::size_t first = 0;
    const std::string range = request.get_header_value("Range");
    const std::string ifRange = request.get_header_value("If-Range");
    response.status = file.status;
    if (file.status == 200 && range.starts_with("bytes=") &&
        (ifRange.empty() || ifRange == file.etag ||
         (!file.lastModified.empty() && ifRange == file.lastModified))) {
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
    }

    const optional<std::size_t> dropAfter = faulty ? file.dropAfter : nullopt;
    const optional<std::size_t> stallAfter = faulty ? file.stallAfter : nullopt;
    const optional<std::size_t> limit = dropAfter ? dropAfter : stallAfter;
    const auto body = std::make_shared<std::string>(file.content.substr(first));
    // Short of an announced length, the connection breaks off once the body is sent.
    const bool shortOfLength = file.announcedLength.has_value();
    response.set_content_provider(
        file.announcedLength.value_or(body->size()), "application/octet-stream",
        [this, body, limit, stalls = stallAfter.has_value(), shortOfLength](
            std::size_t offset, std::size_t length, httplib::DataSink& sink) {
            constexpr std::size_t kChunk = 16 * 1024;
            std::size_t end = std::min(
                {offset + std::min(length, kChunk), body->size(), limit.value_or(body->size())});
            end = std::max(end, offset);
            if (end > offset && !sink.write(body->data() + offset, end - offset)) {
                return false;
            }
            if (limit && end == *limit) {
                if (stalls) {
                    waitForRelease(std::chrono::seconds(30));
                }
                return false;  // breaks the connection off
            }
            return !(shortOfLength && end == body->size());
        });
}

}  // namespace terrane::common::test
