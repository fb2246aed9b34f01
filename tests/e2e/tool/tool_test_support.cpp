#include "tool_test_support.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <terrane/value/value_converter.hpp>
#include <thread>

namespace terrane::tool::test {

using namespace std::chrono_literals;

std::string toolPath() {
    return TERRANE_OFFLINE_TOOL;
}

ScratchDirectory::ScratchDirectory() {
    std::string pattern = (fs::temp_directory_path() / "terrane-tool-e2e-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code ignored;
    // Directories a test made read-only must not stop the clean-up.
    for (auto entry = fs::recursive_directory_iterator(path_, ignored);
         !ignored && entry != fs::recursive_directory_iterator(); entry.increment(ignored)) {
        if (entry->is_directory(ignored)) {
            fs::permissions(entry->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
        }
    }
    fs::remove_all(path_, ignored);
}

std::vector<std::string> RunResult::errLines() const {
    std::vector<std::string> lines;
    std::istringstream in(err);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty()) {
            lines.push_back(line);
        }
    }
    return lines;
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const fs::path& work,
                           const std::vector<std::string>& environment) {
    fs::create_directories(work);
    static int counter = 0;
    const std::string stem =
        "child-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
    outPath_ = work / (stem + ".out");
    errPath_ = work / (stem + ".err");
    std::vector<std::string> copies = arguments;
    std::vector<char*> argv;
    for (std::string& argument : copies) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
        const int in = ::open("/dev/null", O_RDONLY);
        const int out = ::open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(err, 2);
        ::unsetenv("TERRANE_ACCESS_TOKEN");
        for (const std::string& variable : environment) {
            const auto equals = variable.find('=');
            ::setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    if (pid_ < 0) {
        throw std::runtime_error("fork failed");
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

void ChildProcess::signal(int number) {
    if (pid_ > 0) {
        ::kill(pid_, number);
    }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds limit) {
    if (pid_ <= 0) {
        return status_;
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (true) {
        int raw = 0;
        const pid_t done = ::waitpid(pid_, &raw, WNOHANG);
        if (done == pid_) {
            pid_ = -1;
            status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -WTERMSIG(raw);
            return status_;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(10ms);
    }
}

std::string ChildProcess::out() const {
    return readFile(outPath_);
}
std::string ChildProcess::err() const {
    return readFile(errPath_);
}

RunResult ChildProcess::result() const {
    return RunResult{status_, out(), err()};
}

RunResult runTool(const std::vector<std::string>& arguments,
                  const std::vector<std::string>& environment, std::chrono::seconds limit) {
    ScratchDirectory work;
    std::vector<std::string> command{toolPath()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    ChildProcess child(command, work.path(), environment);
    if (!child.wait(limit)) {
        child.signal(SIGKILL);
        child.wait(10s);
        ADD_FAILURE() << "terrane-offline did not finish within " << limit.count() << " s";
    }
    return child.result();
}

std::string patternBytes(std::size_t size, std::uint32_t seed) {
    std::string bytes(size, '\0');
    std::uint32_t state = seed * 2654435761u + 1;
    for (char& byte : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<char>(state & 0xff);
    }
    return bytes;
}

void writeFile(const fs::path& path, const std::string& contents) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

void writeSource(const fs::path& directory, const SourcePacks& sizes) {
    writeFile(directory / "harbour-maps.bin", patternBytes(sizes.harbourMaps, 1));
    writeFile(directory / "harbour-navigation.bin", patternBytes(sizes.harbourNavigation, 2));
    writeFile(directory / "plain-maps.bin", patternBytes(sizes.plainMaps, 3));
    writeFile(
        directory / "harbour.geojson",
        R"({"type":"Feature","properties":{},"geometry":{"type":"Point","coordinates":[10.5,59.9]}})");
    writeFile(directory / "regions.json", R"({
  "regions": {
    "harbour": {
      "name": "Harbour City",
      "description": "Test region",
      "revision": 2,
      "last_updated": "2024-03-01T10:00:00Z",
      "geography": "harbour.geojson",
      "packs": {
        "maps": {"file": "harbour-maps.bin", "data_version": "2024.03"},
        "navigation": "harbour-navigation.bin"
      }
    },
    "plain": {"revision": 5, "description": "Plain\u001b[2J\r\nforged line",
              "packs": {"maps": "plain-maps.bin"}}
  }
})");
}

void publish(const fs::path& source, const fs::path& out, const std::string& user) {
    const RunResult result = runTool({"publish", source.string(), out.string(), "--user", user});
    ASSERT_EQ(result.status, 0) << result.err;
}

std::vector<AccessEntry> readAccessLog(const fs::path& log) {
    std::vector<AccessEntry> entries;
    std::istringstream in(readFile(log));
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        AccessEntry entry;
        std::string range;
        std::string ifRange;
        std::string ifNoneMatch;
        fields >> entry.method >> entry.path >> entry.status >> entry.bytes >> range >> ifRange >>
            ifNoneMatch;
        const auto value = [](const std::string& field) {
            const auto equals = field.find('=');
            const std::string raw = equals == std::string::npos ? "" : field.substr(equals + 1);
            return raw == "-" ? std::string() : raw;
        };
        entry.range = value(range);
        entry.ifRange = value(ifRange);
        entry.ifNoneMatch = value(ifNoneMatch);
        entries.push_back(entry);
    }
    return entries;
}

namespace {

bool accepts(std::uint16_t port) {
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool connected =
        ::connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(probe);
    return connected;
}

// One `serve` process; its first line names the port.
class ServeInstance {
  public:
    ServeInstance(const ServerSettings& settings, std::uint64_t rate, const std::string& name) {
        std::vector<std::string> command{toolPath(),
                                         "serve",
                                         settings.root.string(),
                                         "--port",
                                         "0",
                                         "--max-age",
                                         std::to_string(settings.maxAge),
                                         "--access-log",
                                         (settings.work / "access.log").string()};
        if (rate > 0) {
            command.push_back("--rate");
            command.push_back(std::to_string(rate));
        }
        process_ = std::make_unique<ChildProcess>(command, settings.work / name);
        const bool started = eventually(
            [this] { return process_->out().find("http://127.0.0.1:") != std::string::npos; }, 10s);
        if (!started) {
            throw std::runtime_error("serve did not start: " + process_->err());
        }
        const std::string out = process_->out();
        const auto at = out.find("http://127.0.0.1:") + 17;
        port_ = static_cast<std::uint16_t>(std::stoi(out.substr(at)));
    }
    ~ServeInstance() {
        process_->signal(SIGINT);
        process_->wait(10s);
    }
    std::uint16_t port() const { return port_; }

  private:
    std::unique_ptr<ChildProcess> process_;
    std::uint16_t port_ = 0;
};

class ServeServer final : public CatalogueServer {
  public:
    explicit ServeServer(const ServerSettings& settings)
        : log_(settings.work / "access.log"),
          fast_(settings, 0, "serve-fast"),
          slow_(settings, settings.slowRate, "serve-slow") {}

    std::string baseUrl() const override { return url(fast_.port()); }
    std::string slowBaseUrl() const override { return url(slow_.port()); }
    std::vector<AccessEntry> accessLog() const override { return readAccessLog(log_); }
    std::string name() const override { return "serve"; }

  private:
    static std::string url(std::uint16_t port) {
        return "http://127.0.0.1:" + std::to_string(port);
    }

    fs::path log_;
    ServeInstance fast_;
    ServeInstance slow_;
};

class NginxServer final : public CatalogueServer {
  public:
    explicit NginxServer(const ServerSettings& settings) : settings_(settings) {
        for (int attempt = 0; attempt < 5 && !process_; ++attempt) {
            port_ = unusedPort();
            writeConfiguration();
            process_ = std::make_unique<ChildProcess>(
                std::vector<std::string>{"/usr/sbin/nginx", "-p", settings_.work.string() + "/",
                                         "-c", (settings_.work / "nginx.conf").string(), "-e",
                                         (settings_.work / "error.log").string()},
                settings_.work);
            if (!eventually([this] { return accepts(port_) || process_->wait(0ms); }, 10s) ||
                !accepts(port_)) {
                process_.reset();
            }
        }
        if (!process_) {
            throw std::runtime_error("nginx did not start: " +
                                     readFile(settings_.work / "error.log"));
        }
    }
    ~NginxServer() override {
        process_->signal(SIGTERM);
        process_->wait(10s);
    }

    std::string baseUrl() const override { return "http://127.0.0.1:" + std::to_string(port_); }
    std::string slowBaseUrl() const override { return baseUrl() + "/slow"; }
    std::vector<AccessEntry> accessLog() const override {
        return readAccessLog(settings_.work / "access.log");
    }
    std::string name() const override { return "nginx"; }

  private:
    void writeConfiguration() const {
        const std::string work = settings_.work.string();
        const std::string root = settings_.root.string();
        const std::string cache =
            "add_header Cache-Control \"max-age=" + std::to_string(settings_.maxAge) + "\";";
        std::ofstream out(settings_.work / "nginx.conf", std::ios::trunc);
        out << "daemon off;\nmaster_process off;\nworker_processes 1;\n"
            << "pid " << work << "/nginx.pid;\n"
            << "error_log " << work << "/error.log warn;\n"
            << "events { worker_connections 256; }\n"
            << "http {\n"
            << "  log_format tool escape=none '$request_method $uri $status $body_bytes_sent "
               "range=$http_range if-range=$http_if_range if-none-match=$http_if_none_match';\n"
            << "  access_log " << work << "/access.log tool;\n"
            << "  client_body_temp_path " << work << "/client_body;\n"
            << "  proxy_temp_path " << work << "/proxy;\n"
            << "  fastcgi_temp_path " << work << "/fastcgi;\n"
            << "  uwsgi_temp_path " << work << "/uwsgi;\n"
            << "  scgi_temp_path " << work << "/scgi;\n"
            << "  default_type application/octet-stream;\n"
            << "  server {\n"
            << "    listen 127.0.0.1:" << port_ << ";\n"
            << "    root " << root << ";\n"
            << "    location / { " << cache << " }\n"
            << "    location /slow/ { alias " << root << "/; limit_rate " << settings_.slowRate
            << "; " << cache << " }\n"
            << "    location /offline-data/v1/locked/ { default_type application/json; "
               "return 401 '{\"message\":\"Invalid access token\"}'; }\n"
            << "  }\n"
            << "}\n";
    }

    ServerSettings settings_;
    std::uint16_t port_ = 0;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace

std::unique_ptr<CatalogueServer> startServe(const ServerSettings& settings) {
    fs::create_directories(settings.work);
    return std::make_unique<ServeServer>(settings);
}

bool nginxInstalled() {
    return ::access("/usr/sbin/nginx", X_OK) == 0;
}

std::unique_ptr<CatalogueServer> startNginx(const ServerSettings& settings) {
    if (!nginxInstalled()) {
        return nullptr;
    }
    fs::create_directories(settings.work);
    return std::make_unique<NginxServer>(settings);
}

std::uint16_t unusedPort() {
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(probe);
    return ntohs(address.sin_port);
}

feature::value parseJson(const std::string& text) {
    auto parsed = common::ValueConverter::fromJson(text);
    if (!parsed) {
        throw std::runtime_error("not JSON (" + parsed.error() + "): " + text);
    }
    return *parsed;
}

const feature::value& at(const feature::value& object, const std::string& key) {
    const auto& members = object.get<feature::value::object_type>();
    const auto found = members.find(key);
    if (found == members.end()) {
        throw std::runtime_error("no member " + key);
    }
    return found->second;
}

std::string text(const feature::value& value) {
    return value.get<std::string>();
}

std::uint64_t number(const feature::value& value) {
    return value.get<std::uint64_t>();
}

HttpAnswer httpRequest(std::uint16_t port, const std::string& method, const std::string& target,
                       const std::vector<std::string>& headers) {
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(socket);
        throw std::runtime_error("cannot connect to port " + std::to_string(port));
    }
    std::string request = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    for (const std::string& header : headers) {
        request += header + "\r\n";
    }
    request += "Connection: close\r\n\r\n";
    ::send(socket, request.data(), request.size(), MSG_NOSIGNAL);
    std::string response;
    std::array<char, 8192> chunk{};
    for (ssize_t got; (got = ::recv(socket, chunk.data(), chunk.size(), 0)) > 0;) {
        response.append(chunk.data(), static_cast<std::size_t>(got));
    }
    ::close(socket);

    HttpAnswer answer;
    const auto headEnd = response.find("\r\n\r\n");
    std::istringstream head(response.substr(0, headEnd));
    std::string version;
    head >> version >> answer.status;
    std::string line;
    std::getline(head, line);
    while (std::getline(head, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        const auto colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        std::string name = line.substr(0, colon);
        for (char& c : name) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        answer.headers[name] = line.substr(line.find_first_not_of(' ', colon + 1));
    }
    answer.body = headEnd == std::string::npos ? std::string() : response.substr(headEnd + 4);
    return answer;
}

std::uint64_t largestFileBelow(const fs::path& directory) {
    std::uint64_t largest = 0;
    std::error_code error;
    for (auto entry = fs::recursive_directory_iterator(directory, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::error_code sizeError;
        if (entry->is_regular_file(sizeError)) {
            largest = std::max<std::uint64_t>(largest, entry->file_size(sizeError));
        }
    }
    return largest;
}

}  // namespace terrane::tool::test
