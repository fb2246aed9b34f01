#include "tool_test_support.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace terrane::tool::test {

using namespace std::chrono_literals;

ScratchDirectory::ScratchDirectory() {
    std::string pattern = (fs::temp_directory_path() / "terrane-tool-e2e-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const fs::path& work,
                           const std::vector<std::string>& environment) {
    fs::create_directories(work);
    static int counter = 0;
    const std::string stem = "child-" + std::to_string(++counter);
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
        ::dup2(::open("/dev/null", O_RDONLY), 0);
        ::dup2(::open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        ::dup2(::open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        ::unsetenv("TERRANE_ACCESS_TOKEN");
        for (const std::string& variable : environment) {
            ::putenv(::strdup(variable.c_str()));
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
    int raw = 0;
    if (pid_ <= 0) {
        return status_;
    }
    if (!eventually([&] { return ::waitpid(pid_, &raw, WNOHANG) == pid_; }, limit)) {
        return std::nullopt;
    }
    pid_ = -1;
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -WTERMSIG(raw);
    return status_;
}

std::string ChildProcess::out() const {
    return readFile(outPath_);
}
std::string ChildProcess::err() const {
    return readFile(errPath_);
}

std::uint16_t ChildProcess::announcedPort() const {
    const std::string prefix = "http://127.0.0.1:";
    if (!eventually([&] { return out().find(prefix) != std::string::npos; }, 10s)) {
        throw std::runtime_error("no server address announced: " + err());
    }
    const std::string text = out();
    return static_cast<std::uint16_t>(std::stoi(text.substr(text.find(prefix) + prefix.size())));
}

RunResult runTool(const std::vector<std::string>& arguments,
                  const std::vector<std::string>& environment, std::chrono::seconds limit) {
    ScratchDirectory work;
    std::vector<std::string> command{kTool};
    command.insert(command.end(), arguments.begin(), arguments.end());
    ChildProcess child(command, work.path(), environment);
    auto status = child.wait(limit);
    if (!status) {
        ADD_FAILURE() << "terrane-offline did not finish within " << limit.count() << " s";
        child.signal(SIGKILL);
        status = child.wait(10s);
    }
    return RunResult{status.value_or(-1), child.out(), child.err()};
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
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
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
    writeFile(directory / "regions.json", R"({"regions": {
    "harbour": {"name": "Harbour City", "description": "Test region", "revision": 2,
      "last_updated": "2024-03-01T10:00:00Z", "geography": "harbour.geojson", "packs": {
        "maps": {"file": "harbour-maps.bin", "data_version": "2024.03"},
        "navigation": "harbour-navigation.bin"}},
    "plain": {"revision": 5, "description": "Plain\u001b[2J\r\nforged line",
      "packs": {"maps": "plain-maps.bin"}}}})");
}

void publish(const fs::path& source, const fs::path& out, const std::string& user) {
    const RunResult result = runTool({"publish", source.string(), out.string(), "--user", user});
    ASSERT_EQ(result.status, 0) << result.err;
}

std::vector<AccessEntry> readAccessLog(const fs::path& log) {
    std::vector<AccessEntry> entries;
    std::istringstream in(readFile(log));
    AccessEntry entry;
    // Header fields come as name=value, "-" for none.
    std::string range;
    std::string ifRange;
    std::string ifNoneMatch;
    while (in >> entry.method >> entry.path >> entry.status >> entry.bytes >> range >> ifRange >>
           ifNoneMatch) {
        entry.range = range.ends_with("=-") ? "" : range.substr(range.find('=') + 1);
        entry.ifNoneMatch =
            ifNoneMatch.ends_with("=-") ? "" : ifNoneMatch.substr(ifNoneMatch.find('=') + 1);
        entries.push_back(entry);
    }
    return entries;
}

namespace {

std::string nginxConfiguration(const ServerSettings& settings, std::uint16_t port) {
    const std::string work = settings.work.string();
    const std::string root = settings.root.string();
    const std::string cache =
        "add_header Cache-Control \"max-age=" + std::to_string(settings.maxAge) + "\";";
    std::string temporary;
    for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
        temporary += "  " + std::string(kind) + "_temp_path " + work + "/" + kind + ";\n";
    }
    return "daemon off;\nmaster_process off;\nworker_processes 1;\npid " + work +
           "/nginx.pid;\nerror_log " + work +
           "/error.log warn;\nevents { worker_connections 256; }\nhttp {\n" +
           "  log_format tool escape=none '$request_method $uri $status $body_bytes_sent "
           "range=$http_range if-range=$http_if_range if-none-match=$http_if_none_match';\n" +
           "  access_log " + work + "/access.log tool;\n" + temporary +
           "  default_type application/octet-stream;\n  server {\n    listen 127.0.0.1:" +
           std::to_string(port) + ";\n    root " + root + ";\n    location / { " + cache +
           " }\n    location /slow/ { alias " + root + "/; limit_rate " +
           std::to_string(settings.slowRate) + "; " + cache +
           " }\n    location /offline-data/v1/locked/ { default_type application/json; return "
           "401 '{\"message\":\"Invalid access token\"}'; }\n  }\n}\n";
}

}  // namespace

std::unique_ptr<CatalogueServer> startServe(const ServerSettings& settings) {
    auto server = std::make_unique<CatalogueServer>();
    server->accessLog = settings.work / "access.log";
    for (const std::uint64_t rate : {std::uint64_t{0}, settings.slowRate}) {
        server->processes.push_back(std::make_unique<ChildProcess>(
            std::vector<std::string>{kTool, "serve", settings.root.string(), "--port", "0",
                                     "--max-age", std::to_string(settings.maxAge), "--rate",
                                     std::to_string(rate), "--access-log",
                                     server->accessLog.string()},
            settings.work));
        (rate == 0 ? server->baseUrl : server->slowBaseUrl) =
            "http://127.0.0.1:" + std::to_string(server->processes.back()->announcedPort());
    }
    return server;
}

std::unique_ptr<CatalogueServer> startNginx(const ServerSettings& settings) {
    if (::access("/usr/sbin/nginx", X_OK) != 0) {
        return nullptr;
    }
    auto server = std::make_unique<CatalogueServer>();
    server->accessLog = settings.work / "access.log";
    for (int attempt = 0; attempt < 5 && server->processes.empty(); ++attempt) {
        const std::uint16_t port = unusedPort();
        writeFile(settings.work / "nginx.conf", nginxConfiguration(settings, port));
        auto nginx = std::make_unique<ChildProcess>(
            std::vector<std::string>{"/usr/sbin/nginx", "-p", settings.work.string() + "/", "-c",
                                     (settings.work / "nginx.conf").string(), "-e",
                                     (settings.work / "error.log").string()},
            settings.work);
        httplib::Client probe("127.0.0.1", port);
        if (eventually([&] { return probe.Get("/") || nginx->wait(0ms); }, 10s) && probe.Get("/")) {
            server->processes.push_back(std::move(nginx));
            server->baseUrl = "http://127.0.0.1:" + std::to_string(port);
            server->slowBaseUrl = server->baseUrl + "/slow";
        }
    }
    if (server->processes.empty()) {
        throw std::runtime_error("nginx did not start: " + readFile(settings.work / "error.log"));
    }
    return server;
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

rapidjson::Document parseJson(const std::string& text) {
    rapidjson::Document document;
    if (document.Parse(text.c_str()).HasParseError()) {
        throw std::runtime_error("not JSON: " + text);
    }
    return document;
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
