#pragma once

// Helpers for running terrane-offline as a user would: as a child process with its own stdout and
// stderr, against catalogue servers (the tool's own `serve`, or nginx) on loopback ports chosen
// by the system. One test thread at a time.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <terrane/feature/value.hpp>
#include <vector>

namespace terrane::tool::test {

namespace fs = std::filesystem;

// The tool under test, as built alongside these tests.
std::string toolPath();

// A fresh directory below the system's temporary directory, removed with its contents.
class ScratchDirectory {
  public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

struct RunResult {
    // The exit status, or minus the signal number when a signal ended the process.
    int status = -1;
    std::string out;
    std::string err;

    // stderr split into lines, empty ones dropped.
    std::vector<std::string> errLines() const;
};

// A child process with stdout and stderr going to files in `work`. The destructor kills (SIGKILL)
// and reaps a child that still runs.
class ChildProcess {
  public:
    ChildProcess(const std::vector<std::string>& arguments, const fs::path& work,
                 const std::vector<std::string>& environment = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number);
    // Waits for the end; the status as in RunResult, or nullopt after `limit`.
    std::optional<int> wait(std::chrono::milliseconds limit);
    std::string out() const;
    std::string err() const;
    RunResult result() const;

  private:
    pid_t pid_ = -1;
    int status_ = -1;
    fs::path outPath_;
    fs::path errPath_;
};

// Runs the tool to its end (killing it after `limit`, which fails the calling test).
RunResult runTool(const std::vector<std::string>& arguments,
                  const std::vector<std::string>& environment = {},
                  std::chrono::seconds limit = std::chrono::seconds(120));

// Deterministic file contents.
std::string patternBytes(std::size_t size, std::uint32_t seed);
void writeFile(const fs::path& path, const std::string& contents);
std::string readFile(const fs::path& path);

// Pack sizes of the sample source written by writeSource.
struct SourcePacks {
    std::size_t harbourMaps = 256 * 1024;
    std::size_t harbourNavigation = 128 * 1024 + 7;
    std::size_t plainMaps = 64 * 1024;
};

// A publish source: region "harbour" (revision 2, maps and navigation, a Feature outline) and
// region "plain" (revision 5, maps only, no outline, a description with terminal escapes).
void writeSource(const fs::path& directory, const SourcePacks& sizes = {});

// Runs `publish SRC OUT --user USER`; fails the test when it does not succeed.
void publish(const fs::path& source, const fs::path& out, const std::string& user);

// One line of a server's access log (the same format for `serve` and for our nginx).
struct AccessEntry {
    std::string method;
    std::string path;
    int status = 0;
    std::uint64_t bytes = 0;
    std::string range;
    std::string ifRange;
    std::string ifNoneMatch;
};
std::vector<AccessEntry> readAccessLog(const fs::path& log);

// A catalogue server for the flow tests.
class CatalogueServer {
  public:
    virtual ~CatalogueServer() = default;
    // What --base-url should be for full-speed transfers.
    virtual std::string baseUrl() const = 0;
    // What --base-url should be for transfers paced at about `slowRate` per connection.
    virtual std::string slowBaseUrl() const = 0;
    virtual std::vector<AccessEntry> accessLog() const = 0;
    virtual std::string name() const = 0;
};

struct ServerSettings {
    fs::path root;
    fs::path work;
    std::int64_t maxAge = 3600;
    // Bytes per second per connection on the slow address.
    std::uint64_t slowRate = 1024 * 1024;
};

// `terrane-offline serve`, started twice over the same root: once at full speed, once paced.
std::unique_ptr<CatalogueServer> startServe(const ServerSettings& settings);
// nginx with a configuration of our own: access log, a paced location "/slow/", the given
// max-age, and a user "locked" whose catalogue answers 401. Nothing when nginx is not installed.
std::unique_ptr<CatalogueServer> startNginx(const ServerSettings& settings);
bool nginxInstalled();

// A free TCP port on 127.0.0.1 that nothing listens on (closed again right away).
std::uint16_t unusedPort();

// Parsed JSON output of the tool.
feature::value parseJson(const std::string& text);
const feature::value& at(const feature::value& object, const std::string& key);
std::string text(const feature::value& value);
std::uint64_t number(const feature::value& value);

// A plain HTTP/1.1 exchange on a fresh connection ("Connection: close" is added).
struct HttpAnswer {
    int status = 0;
    std::map<std::string, std::string> headers;  // lower-case names
    std::string body;
};
HttpAnswer httpRequest(std::uint16_t port, const std::string& method, const std::string& target,
                       const std::vector<std::string>& headers = {});

// Polls `condition` every 20 ms until it holds or `limit` passes.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) {
            return true;
        }
        struct timespec pause {
            0, 20 * 1000 * 1000
        };
        ::nanosleep(&pause, nullptr);
    }
    return condition();
}

// The largest regular file below `directory` (0 when there is none): how far a download came,
// whatever names the HTTP layer gives its partial files.
std::uint64_t largestFileBelow(const fs::path& directory);

}  // namespace terrane::tool::test
