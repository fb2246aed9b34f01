#include "static_file_server.hpp"

#include <fcntl.h>
#include <httplib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <vector>

namespace terrane::tool {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr std::size_t kMaxBody = 16 * 1024;
constexpr std::size_t kChunk = 64 * 1024;
constexpr int kSocketTimeoutSeconds = 60;

struct ByteRange {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
};

enum class RangeOutcome { Whole, Partial, Unsatisfiable };

std::string trim(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t");
    return std::string(text.substr(first, last - first + 1));
}

std::string httpDate(std::time_t time) {
    std::tm utc{};
    gmtime_r(&time, &utc);
    std::array<char, 64> buffer{};
    std::strftime(buffer.data(), buffer.size(), "%a, %d %b %Y %H:%M:%S GMT", &utc);
    return buffer.data();
}

bool parseNumber(std::string_view text, std::uint64_t& out) {
    if (text.empty()) {
        return false;
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size();
}

// One "bytes=" range; several ranges, other units and nonsense are answered with the whole file,
// which HTTP allows.
RangeOutcome parseRange(const std::string& header, std::uint64_t size, ByteRange& range) {
    const std::string value = trim(header);
    if (!value.starts_with("bytes=")) {
        return RangeOutcome::Whole;
    }
    const std::string ranges = trim(std::string_view(value).substr(6));
    const auto dash = ranges.find('-');
    if (ranges.find(',') != std::string::npos || dash == std::string::npos) {
        return RangeOutcome::Whole;
    }
    const std::string_view from = std::string_view(ranges).substr(0, dash);
    const std::string_view to = std::string_view(ranges).substr(dash + 1);
    if (from.empty()) {
        std::uint64_t suffix = 0;
        if (!parseNumber(to, suffix)) {
            return RangeOutcome::Whole;
        }
        if (suffix == 0 || size == 0) {
            return RangeOutcome::Unsatisfiable;
        }
        range.first = size > suffix ? size - suffix : 0;
        range.last = size - 1;
        return RangeOutcome::Partial;
    }
    std::uint64_t first = 0;
    if (!parseNumber(from, first)) {
        return RangeOutcome::Whole;
    }
    std::uint64_t last = size == 0 ? 0 : size - 1;
    if (!to.empty()) {
        std::uint64_t requested = 0;
        if (!parseNumber(to, requested) || requested < first) {
            return RangeOutcome::Whole;
        }
        last = std::min(last, requested);
    }
    if (first >= size) {
        return RangeOutcome::Unsatisfiable;
    }
    range.first = first;
    range.last = last;
    return RangeOutcome::Partial;
}

bool etagListMatches(const std::string& header, const std::string& etag) {
    std::size_t start = 0;
    while (start <= header.size()) {
        const auto comma = header.find(',', start);
        std::string candidate = trim(std::string_view(header).substr(
            start, comma == std::string::npos ? std::string::npos : comma - start));
        if (candidate.starts_with("W/")) {
            candidate.erase(0, 2);
        }
        if (candidate == "*" || candidate == etag) {
            return true;
        }
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
    return false;
}

std::string contentTypeFor(const fs::path& path) {
    const std::string name = path.filename().string();
    if (name == "regions" || path.extension() == ".json" || path.extension() == ".geojson") {
        return "application/json";
    }
    return "application/octet-stream";
}

// An open file that every copy of a content provider shares; closed with the last one.
class OpenFile {
  public:
    explicit OpenFile(int descriptor) : descriptor_(descriptor) {}
    ~OpenFile() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

void sendError(httplib::Response& response, int status, const std::string& message) {
    response.status = status;
    response.set_header("Cache-Control", "no-store");
    response.set_content("{\"message\":\"" + message + "\"}", "application/json");
}

}  // namespace

// What the access log says about a request, kept apart from it for the end of a paced body.
struct StaticFileServer::Entry {
    std::string method;
    std::string path;
    std::string range;
    std::string ifRange;
    std::string ifNoneMatch;
};

Result<std::unique_ptr<StaticFileServer>> StaticFileServer::start(StaticFileServerOptions options) {
    std::error_code error;
    const fs::path root = fs::canonical(options.root, error);
    if (error || !fs::is_directory(root, error)) {
        return fail(BadInput, "cannot serve '" + options.root.string() + "': " +
                                  (error ? error.message() : std::string("Not a directory")));
    }
    std::unique_ptr<StaticFileServer> server(new StaticFileServer(std::move(options)));
    server->root_ = root;
    if (!server->options_.accessLog.empty()) {
        server->logFile_ = ::open(server->options_.accessLog.c_str(),
                                  O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (server->logFile_ < 0) {
            return fail(BadInput, "cannot open access log '" + server->options_.accessLog +
                                      "': " + std::strerror(errno));
        }
    }
    auto& http = *server->server_;
    http.set_read_timeout(kSocketTimeoutSeconds);
    http.set_write_timeout(kSocketTimeoutSeconds);
    http.set_payload_max_length(kMaxBody);
    StaticFileServer* raw = server.get();
    http.Get(".*", [raw](const httplib::Request& request, httplib::Response& response) {
        raw->serveFile(request, response);
    });
    // Before httplib reads a body, which a client of another method may never end.
    http.set_pre_routing_handler([](const httplib::Request& request, httplib::Response& response) {
        if (request.method == "GET" || request.method == "HEAD") {
            return httplib::Server::HandlerResponse::Unhandled;
        }
        sendError(response, 405, "Method not allowed");
        response.set_header("Allow", "GET, HEAD");
        response.set_header("Connection", "close");
        return httplib::Server::HandlerResponse::Handled;
    });
    http.set_logger([raw](const httplib::Request& request, const httplib::Response& response) {
        raw->requests_.fetch_add(1);
        std::uint64_t bytes = request.method == "HEAD" ? 0 : response.body.size();
        {
            std::lock_guard lock(raw->transfersMutex_);
            if (const auto found = raw->transfers_.find(&response);
                found != raw->transfers_.end()) {
                bytes = found->second->load();
            }
        }
        raw->logAccess(
            Entry{request.method, request.path, request.get_header_value("Range"),
                  request.get_header_value("If-Range"), request.get_header_value("If-None-Match")},
            response.status, bytes);
    });
    const std::string host = "127.0.0.1";
    const int port = server->options_.port == 0 ? http.bind_to_any_port(host)
                                                : (http.bind_to_port(host, server->options_.port)
                                                       ? static_cast<int>(server->options_.port)
                                                       : -1);
    if (port <= 0) {
        return fail(Failure, "cannot listen on 127.0.0.1:" + std::to_string(server->options_.port) +
                                 ": " + std::strerror(errno));
    }
    server->port_ = static_cast<std::uint16_t>(port);
    server->listener_ = std::thread([raw] {
        raw->server_->listen_after_bind();
        raw->listenerDone_.store(true);
    });
    return server;
}

StaticFileServer::StaticFileServer(StaticFileServerOptions options)
    : options_(std::move(options)), server_(std::make_unique<httplib::Server>()) {
}

StaticFileServer::~StaticFileServer() {
    stop();
    if (logFile_ >= 0) {
        ::close(logFile_);
    }
}

std::string StaticFileServer::url() const {
    return "http://127.0.0.1:" + std::to_string(port_);
}

void StaticFileServer::stop() {
    {
        std::lock_guard lock(paceMutex_);
        if (stopping_.exchange(true)) {
            return;
        }
    }
    paceWake_.notify_all();
    if (listener_.joinable()) {
        // httplib ignores a stop() that comes before its loop has begun.
        while (!server_->is_running() && !listenerDone_.load()) {
            std::this_thread::sleep_for(1ms);
        }
        server_->stop();
        listener_.join();
    }
}

bool StaticFileServer::pace(std::chrono::steady_clock::time_point start, std::uint64_t sent) {
    if (options_.rateLimit == 0) {
        return !stopping_.load();
    }
    const auto due =
        start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                    std::chrono::duration<double>(static_cast<double>(sent) /
                                                  static_cast<double>(options_.rateLimit)));
    std::unique_lock lock(paceMutex_);
    paceWake_.wait_until(lock, due, [this] { return stopping_.load(); });
    return !stopping_.load();
}

void StaticFileServer::logAccess(const Entry& entry, int status, std::uint64_t bodyBytes) {
    bodyBytes_.fetch_add(bodyBytes);
    if (logFile_ < 0 && !options_.echoRequests) {
        return;
    }
    const auto shown = [](const std::string& value) { return value.empty() ? "-" : value; };
    const std::string line = entry.method + " " + entry.path + " " + std::to_string(status) + " " +
                             std::to_string(bodyBytes) + " range=" + shown(entry.range) +
                             " if-range=" + shown(entry.ifRange) +
                             " if-none-match=" + shown(entry.ifNoneMatch) + "\n";
    std::lock_guard lock(logMutex_);
    if (logFile_ >= 0) {
        (void)!::write(logFile_, line.data(), line.size());
    }
    if (options_.echoRequests) {
        std::fputs(line.c_str(), stdout);
        std::fflush(stdout);
    }
}

void StaticFileServer::serveFile(const httplib::Request& request, httplib::Response& response) {
    // httplib would cut the body to the Range header by itself, blind to If-Range and to ranges
    // past the end; this server decides on ranges, so the request must not carry them on. The
    // request is httplib's own mutable object, handed to handlers as const.
    const_cast<httplib::Request&>(request).ranges.clear();
    // httplib has already split off the query, and with it any access token.
    fs::path file = root_;
    for (const auto& segment : fs::path(request.path)) {
        const std::string part = segment.string();
        if (part.empty() || part == "/" || part == ".") {
            continue;
        }
        if (part == "..") {
            return sendError(response, 404, "Not found");
        }
        file /= part;
    }
    std::error_code error;
    const fs::path resolved = fs::canonical(file, error);
    if (error || !resolved.string().starts_with(root_.string() + "/")) {
        return sendError(response, 404, "Not found");
    }
    auto opened = std::make_shared<OpenFile>(::open(resolved.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (opened->get() < 0 || ::fstat(opened->get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return sendError(response, 404, "Not found");
    }
    const std::uint64_t size = static_cast<std::uint64_t>(status.st_size);
    const std::uint64_t modifiedNanoseconds =
        static_cast<std::uint64_t>(status.st_mtim.tv_sec) * 1000000000ULL +
        static_cast<std::uint64_t>(status.st_mtim.tv_nsec);
    std::array<char, 64> tag{};
    std::snprintf(tag.data(), tag.size(), "\"%llx-%llx\"", static_cast<unsigned long long>(size),
                  static_cast<unsigned long long>(modifiedNanoseconds));
    const std::string etag = tag.data();
    const std::string lastModified = httpDate(status.st_mtim.tv_sec);
    response.set_header("ETag", etag);
    response.set_header("Last-Modified", lastModified);
    response.set_header("Cache-Control", "max-age=" + std::to_string(options_.maxAge));
    response.set_header("Accept-Ranges", "bytes");

    response.status = 200;
    ByteRange range{0, size == 0 ? 0 : size - 1};
    if (request.has_header("If-None-Match") &&
        etagListMatches(request.get_header_value("If-None-Match"), etag)) {
        response.status = 304;
        return;
    }
    if (request.has_header("Range")) {
        bool rangeApplies = true;
        if (request.has_header("If-Range")) {
            const std::string validator = request.get_header_value("If-Range");
            rangeApplies = validator.starts_with("\"")
                               ? validator == etag
                               : !validator.starts_with("W/") && validator == lastModified;
        }
        if (rangeApplies) {
            switch (parseRange(request.get_header_value("Range"), size, range)) {
                case RangeOutcome::Whole:
                    range = ByteRange{0, size == 0 ? 0 : size - 1};
                    break;
                case RangeOutcome::Partial:
                    response.status = 206;
                    response.set_header("Content-Range", "bytes " + std::to_string(range.first) +
                                                             "-" + std::to_string(range.last) +
                                                             "/" + std::to_string(size));
                    break;
                case RangeOutcome::Unsatisfiable:
                    response.status = 416;
                    response.set_header("Content-Range", "bytes */" + std::to_string(size));
                    return;
            }
        }
    }
    const std::uint64_t length = size == 0 ? 0 : range.last - range.first + 1;
    if (length == 0) {
        response.set_content(std::string(), contentTypeFor(resolved));
        return;
    }
    auto sent = std::make_shared<std::atomic<std::uint64_t>>(0);
    {
        std::lock_guard lock(transfersMutex_);
        transfers_[&response] = sent;
    }
    const std::size_t chunkSize = options_.rateLimit == 0
                                      ? kChunk
                                      : static_cast<std::size_t>(std::clamp<std::uint64_t>(
                                            options_.rateLimit / 20, 1024, kChunk));
    const auto started = std::chrono::steady_clock::now();
    response.set_content_provider(
        static_cast<std::size_t>(length), contentTypeFor(resolved),
        [this, opened, sent, chunkSize, started, length, first = range.first](
            std::size_t offset, std::size_t wanted, httplib::DataSink& sink) {
            std::vector<char> chunk(std::min(chunkSize, wanted));
            const ssize_t got = ::pread(opened->get(), chunk.data(), chunk.size(),
                                        static_cast<off_t>(first + offset));
            if (got <= 0 || !sink.write(chunk.data(), static_cast<std::size_t>(got))) {
                return false;
            }
            *sent += static_cast<std::uint64_t>(got);
            return *sent >= length || pace(started, sent->load());
        },
        [this, key = &response](bool) {
            std::lock_guard lock(transfersMutex_);
            transfers_.erase(key);
        });
}

}  // namespace terrane::tool
