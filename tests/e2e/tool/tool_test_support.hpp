#pragma once

// Helpers for running terrane-offline as a user would: as a child process with its own stdout and
// stderr, against catalogue servers (the tool's own `serve`, or nginx) on loopback ports chosen
// by the system. One test thread at a time.

#include <rapidjson/document.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace terrane::tool::test {

namespace fs = std::filesystem;

// The tool under test, as built alongside these tests.
inline const std::string kTool = TERRANE_OFFLINE_TOOL;

// A fresh directory below the system's temporary directory, removed with its contents.
class ScratchDirectory {
  public:
    ScratchDirectory();
    ~ScratchDirectory() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
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
};

// A child process with stdout and stderr going to files in `work`, and TERRANE_ACCESS_TOKEN
// unset unless `environment` sets it. The destructor kills (SIGKILL) and reaps a child that still
// runs.
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
    // The port of the "http://127.0.0.1:PORT" that a server child announces on stdout; throws
    // when none comes within 10 s.
    std::uint16_t announcedPort() const;

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
    std::string ifNoneMatch;
};
std::vector<AccessEntry> readAccessLog(const fs::path& log);

// A catalogue server on 127.0.0.1 over the tree `root`, stopped by its destructor.
struct CatalogueServer {
    std::string baseUrl;
    // Transfers paced at about `slowRate` bytes per second per connection.
    std::string slowBaseUrl;
    fs::path accessLog;
    std::vector<std::unique_ptr<ChildProcess>> processes;
};

struct ServerSettings {
    fs::path root;
    fs::path work;
    std::int64_t maxAge = 3600;
    std::uint64_t slowRate = 1024 * 1024;
};

// `terrane-offline serve`, started twice over the same root: once at full speed, once paced.
std::unique_ptr<CatalogueServer> startServe(const ServerSettings& settings);
// nginx with a configuration of our own: access log, a paced location "/slow/", the given
// max-age, and a user "locked" whose catalogue answers 401. Nothing when nginx is not installed.
std::unique_ptr<CatalogueServer> startNginx(const ServerSettings& settings);

// A free TCP port on 127.0.0.1 that nothing listens on (closed again right away).
std::uint16_t unusedPort();

// Parsed JSON output of the tool; throws when it is not JSON.
rapidjson::Document parseJson(const std::string& text);

// Polls `condition` every 20 ms until it holds or `limit` passes.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// The largest regular file below `directory` (0 when there is none): how far a download came,
// whatever names the HTTP layer gives its partial files.
std::uint64_t largestFileBelow(const fs::path& directory);

}  // namespace terrane::tool::test
