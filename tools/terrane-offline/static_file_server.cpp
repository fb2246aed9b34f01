#include "static_file_server.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
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

constexpr std::size_t kMaxHead = 16 * 1024;
constexpr std::size_t kChunk = 64 * 1024;
constexpr int kSocketTimeoutSeconds = 60;

struct ByteRange {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
};

enum class RangeOutcome { Whole, Partial, Unsatisfiable };

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

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

bool percentDecode(std::string_view text, std::string& out) {
    out.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) {
            return false;
        }
        unsigned value = 0;
        const auto [end, error] =
            std::from_chars(text.data() + i + 1, text.data() + i + 3, value, 16);
        if (error != std::errc() || end != text.data() + i + 3 || value == 0) {
            return false;
        }
        out.push_back(static_cast<char>(value));
        i += 2;
    }
    return true;
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

std::string reasonPhrase(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 206:
            return "Partial Content";
        case 304:
            return "Not Modified";
        case 400:
            return "Bad Request";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 416:
            return "Range Not Satisfiable";
        default:
            return "Error";
    }
}

}  // namespace

struct StaticFileServer::Request {
    std::string method;
    std::string path;
    bool keepAlive = true;
    std::map<std::string, std::string> headers;

    std::string header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
    bool has(const std::string& name) const { return headers.contains(name); }
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
    server->listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (server->listener_ < 0 || ::pipe2(server->wake_, O_CLOEXEC) != 0) {
        return fail(Failure, std::string("cannot open a socket: ") + std::strerror(errno));
    }
    const int yes = 1;
    ::setsockopt(server->listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(server->options_.port);
    if (::bind(server->listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(server->listener_, 128) != 0) {
        return fail(Failure, "cannot listen on 127.0.0.1:" + std::to_string(server->options_.port) +
                                 ": " + std::strerror(errno));
    }
    socklen_t length = sizeof address;
    ::getsockname(server->listener_, reinterpret_cast<sockaddr*>(&address), &length);
    server->port_ = ntohs(address.sin_port);
    server->acceptor_ = std::thread([raw = server.get()] { raw->acceptLoop(); });
    return server;
}

StaticFileServer::StaticFileServer(StaticFileServerOptions options) : options_(std::move(options)) {
}

StaticFileServer::~StaticFileServer() {
    stop();
}

std::string StaticFileServer::url() const {
    return "http://127.0.0.1:" + std::to_string(port_);
}

void StaticFileServer::stop() {
    if (!stopping_.exchange(true)) {
        if (wake_[1] >= 0) {
            (void)!::write(wake_[1], "x", 1);
        }
    }
    if (acceptor_.joinable()) {
        acceptor_.join();
    }
    { std::lock_guard lock(paceMutex_); }
    paceWake_.notify_all();
    {
        std::lock_guard lock(connectionsMutex_);
        for (Connection& connection : connections_) {
            ::shutdown(connection.socket, SHUT_RDWR);
        }
    }
    reapFinished(true);
    for (int* descriptor : {&listener_, &wake_[0], &wake_[1], &logFile_}) {
        if (*descriptor >= 0) {
            ::close(*descriptor);
            *descriptor = -1;
        }
    }
}

void StaticFileServer::acceptLoop() {
    std::array<pollfd, 2> descriptors{{{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}}};
    while (!stopping_.load()) {
        const int ready = ::poll(descriptors.data(), descriptors.size(), 1000);
        reapFinished(false);
        if (ready <= 0 || (descriptors[1].revents & POLLIN) != 0) {
            continue;
        }
        if ((descriptors[0].revents & POLLIN) == 0) {
            continue;
        }
        const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) {
            continue;
        }
        const timeval timeout{kSocketTimeoutSeconds, 0};
        ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        std::lock_guard lock(connectionsMutex_);
        Connection& connection = connections_.emplace_back();
        connection.socket = socket;
        connection.thread = std::thread([this, &connection] {
            serveConnection(connection);
            // The client sees the end at once; the descriptor itself is closed by the reaper.
            ::shutdown(connection.socket, SHUT_RDWR);
            connection.finished.store(true);
        });
    }
}

void StaticFileServer::reapFinished(bool all) {
    std::lock_guard lock(connectionsMutex_);
    for (auto connection = connections_.begin(); connection != connections_.end();) {
        if (all || connection->finished.load()) {
            if (connection->thread.joinable()) {
                connection->thread.join();
            }
            // Closed only here, after the join, so that a shutdown() from stop() can never hit a
            // descriptor number that was meanwhile reused.
            ::close(connection->socket);
            connection = connections_.erase(connection);
        } else {
            ++connection;
        }
    }
}

void StaticFileServer::serveConnection(Connection& connection) {
    const int socket = connection.socket;
    std::string buffer;
    while (!stopping_.load()) {
        std::size_t end = 0;
        while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
            if (buffer.size() > kMaxHead) {
                return;
            }
            std::array<char, 4096> chunk{};
            const ssize_t received = ::recv(socket, chunk.data(), chunk.size(), 0);
            if (received < 0 && errno == EINTR) {
                continue;
            }
            if (received <= 0) {
                return;
            }
            buffer.append(chunk.data(), static_cast<std::size_t>(received));
        }
        const std::string head = buffer.substr(0, end);
        buffer.erase(0, end + 4);

        Request request;
        const auto lineEnd = head.find("\r\n");
        const std::string line = head.substr(0, lineEnd);
        const auto firstSpace = line.find(' ');
        const auto secondSpace = line.find(' ', firstSpace + 1);
        if (firstSpace == std::string::npos || secondSpace == std::string::npos) {
            return;
        }
        request.method = line.substr(0, firstSpace);
        const std::string target = line.substr(firstSpace + 1, secondSpace - firstSpace - 1);
        const std::string version = line.substr(secondSpace + 1);
        std::size_t position = lineEnd == std::string::npos ? head.size() : lineEnd + 2;
        while (position < head.size()) {
            auto next = head.find("\r\n", position);
            if (next == std::string::npos) {
                next = head.size();
            }
            const std::string field = head.substr(position, next - position);
            position = next + 2;
            const auto colon = field.find(':');
            if (colon == std::string::npos) {
                continue;
            }
            const std::string name = lower(field.substr(0, colon));
            const std::string value = trim(std::string_view(field).substr(colon + 1));
            auto [entry, inserted] = request.headers.emplace(name, value);
            if (!inserted) {
                entry->second += ", " + value;
            }
        }
        const std::string connectionHeader = lower(request.header("connection"));
        request.keepAlive = version == "HTTP/1.1"
                                ? connectionHeader.find("close") == std::string::npos
                                : connectionHeader.find("keep-alive") != std::string::npos;
        // The query (and the access token in it) is cut off before anything looks at the path.
        const std::string rawPath = target.substr(0, target.find_first_of("?#"));
        const bool decoded = percentDecode(rawPath, request.path);
        std::uint64_t bodyLength = 0;
        if (request.has("content-length") &&
            (!parseNumber(request.header("content-length"), bodyLength) || bodyLength > kMaxHead)) {
            return;
        }
        while (buffer.size() < bodyLength) {
            std::array<char, 4096> chunk{};
            const ssize_t received = ::recv(socket, chunk.data(), chunk.size(), 0);
            if (received <= 0) {
                return;
            }
            buffer.append(chunk.data(), static_cast<std::size_t>(received));
        }
        buffer.erase(0, bodyLength);
        if (!decoded || !request.path.starts_with("/")) {
            request.path = rawPath;
            request.keepAlive = false;
            request.method = "BAD";
        }
        if (!respond(socket, request)) {
            return;
        }
    }
}

bool StaticFileServer::sendAll(int socket, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(socket, data, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
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

void StaticFileServer::logAccess(const Request& request, int status, std::uint64_t bodyBytes) {
    bodyBytes_.fetch_add(bodyBytes);
    if (logFile_ < 0 && !options_.echoRequests) {
        return;
    }
    const auto shown = [&request](const char* name) {
        const std::string value = request.header(name);
        return value.empty() ? std::string("-") : value;
    };
    const std::string line = request.method + " " + request.path + " " + std::to_string(status) +
                             " " + std::to_string(bodyBytes) + " range=" + shown("range") +
                             " if-range=" + shown("if-range") +
                             " if-none-match=" + shown("if-none-match") + "\n";
    std::lock_guard lock(logMutex_);
    if (logFile_ >= 0) {
        (void)!::write(logFile_, line.data(), line.size());
    }
    if (options_.echoRequests) {
        std::fputs(line.c_str(), stdout);
        std::fflush(stdout);
    }
}

bool StaticFileServer::respond(int socket, const Request& request) {
    requests_.fetch_add(1);
    const auto sendError = [&](int status, const std::string& message,
                               const std::string& extraHeaders) {
        const std::string body = "{\"message\":\"" + message + "\"}";
        const bool head = request.method == "HEAD";
        const std::string response =
            "HTTP/1.1 " + std::to_string(status) + " " + reasonPhrase(status) +
            "\r\nServer: terrane-offline\r\nContent-Type: application/json\r\n"
            "Cache-Control: no-store\r\nContent-Length: " +
            std::to_string(body.size()) + "\r\n" + extraHeaders +
            (request.keepAlive ? "Connection: keep-alive\r\n" : "Connection: close\r\n") + "\r\n" +
            (head ? std::string() : body);
        const bool sent = sendAll(socket, response.data(), response.size());
        logAccess(request, status, head ? 0 : body.size());
        return sent && request.keepAlive;
    };

    if (request.method == "BAD") {
        return sendError(400, "Bad request", "");
    }
    if (request.method != "GET" && request.method != "HEAD") {
        return sendError(405, "Method not allowed", "Allow: GET, HEAD\r\n");
    }
    fs::path file = root_;
    for (const auto& segment : fs::path(request.path)) {
        const std::string part = segment.string();
        if (part.empty() || part == "/" || part == ".") {
            continue;
        }
        if (part == "..") {
            return sendError(404, "Not found", "");
        }
        file /= part;
    }
    std::error_code error;
    const fs::path resolved = fs::canonical(file, error);
    const std::string rootText = root_.string() + "/";
    if (error || !resolved.string().starts_with(rootText)) {
        return sendError(404, "Not found", "");
    }
    const int descriptor = ::open(resolved.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (descriptor < 0 || ::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        return sendError(404, "Not found", "");
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

    std::string common =
        "Server: terrane-offline\r\nDate: " + httpDate(std::time(nullptr)) + "\r\nETag: " + etag +
        "\r\nLast-Modified: " + lastModified +
        "\r\nCache-Control: max-age=" + std::to_string(options_.maxAge) +
        "\r\nAccept-Ranges: bytes\r\n" +
        (request.keepAlive ? "Connection: keep-alive\r\n" : "Connection: close\r\n");

    int code = 200;
    ByteRange range{0, size == 0 ? 0 : size - 1};
    if (request.has("if-none-match") && etagListMatches(request.header("if-none-match"), etag)) {
        code = 304;
    } else if (request.has("range")) {
        bool rangeApplies = true;
        if (request.has("if-range")) {
            const std::string validator = request.header("if-range");
            rangeApplies = validator.starts_with("\"")
                               ? validator == etag
                               : !validator.starts_with("W/") && validator == lastModified;
        }
        if (rangeApplies) {
            switch (parseRange(request.header("range"), size, range)) {
                case RangeOutcome::Whole:
                    range = ByteRange{0, size == 0 ? 0 : size - 1};
                    break;
                case RangeOutcome::Partial:
                    code = 206;
                    break;
                case RangeOutcome::Unsatisfiable:
                    code = 416;
                    break;
            }
        }
    }

    std::string head =
        "HTTP/1.1 " + std::to_string(code) + " " + reasonPhrase(code) + "\r\n" + common;
    std::uint64_t length = 0;
    if (code == 304) {
        head += "\r\n";
    } else if (code == 416) {
        head += "Content-Range: bytes */" + std::to_string(size) + "\r\nContent-Length: 0\r\n\r\n";
    } else {
        length = size == 0 ? 0 : range.last - range.first + 1;
        head += "Content-Type: " + contentTypeFor(resolved) + "\r\n";
        if (code == 206) {
            head += "Content-Range: bytes " + std::to_string(range.first) + "-" +
                    std::to_string(range.last) + "/" + std::to_string(size) + "\r\n";
        }
        head += "Content-Length: " + std::to_string(length) + "\r\n\r\n";
    }
    if (!sendAll(socket, head.data(), head.size())) {
        ::close(descriptor);
        logAccess(request, code, 0);
        return false;
    }
    if (request.method == "HEAD" || length == 0) {
        ::close(descriptor);
        logAccess(request, code, 0);
        return request.keepAlive;
    }

    const std::size_t chunkSize = options_.rateLimit == 0
                                      ? kChunk
                                      : static_cast<std::size_t>(std::clamp<std::uint64_t>(
                                            options_.rateLimit / 20, 1024, kChunk));
    std::vector<char> chunk(chunkSize);
    std::uint64_t sent = 0;
    bool complete = true;
    const auto started = std::chrono::steady_clock::now();
    while (sent < length) {
        const std::size_t wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(chunkSize, length - sent));
        const ssize_t got =
            ::pread(descriptor, chunk.data(), wanted, static_cast<off_t>(range.first + sent));
        if (got <= 0 || !sendAll(socket, chunk.data(), static_cast<std::size_t>(got))) {
            complete = false;
            break;
        }
        sent += static_cast<std::uint64_t>(got);
        if (sent < length && !pace(started, sent)) {
            complete = false;
            break;
        }
    }
    ::close(descriptor);
    logAccess(request, code, sent);
    return complete && request.keepAlive;
}

}  // namespace terrane::tool
