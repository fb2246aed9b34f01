#pragma once

// Helpers for running terrane-offline as a user would: as a child process with its own stdout and
// stderr, against catalogues that the tool's own `serve` offers on loopback ports chosen by the
// system. One test thread at a time.

#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace terrane::tool::test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

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
    // The "http://127.0.0.1:PORT" that a server child announces on stdout; throws when none comes
    // within 10 s.
    std::string announcedUrl() const;

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
std::string patternBytes(std::size_t size, unsigned seed);
void writeFile(const fs::path& path, const std::string& contents);
std::string readFile(const fs::path& path);

// One line of the access log of `serve`.
struct AccessEntry {
    std::string method;
    std::string path;
    int status = 0;
    std::uint64_t bytes = 0;
    std::string range;
    std::string ifNoneMatch;
};
std::vector<AccessEntry> readAccessLog(const fs::path& log);

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
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

// A user "alice" whose catalogue `serve` offers: region "harbour" (revision 2, maps and
// navigation, a Feature outline) and region "plain" (revision 5, maps only, no outline, a
// description with terminal escapes); the tool runs with a storage of its own.
class ToolTest : public ::testing::Test {
  protected:
    fs::path source() const { return scratch_.path() / "source"; }
    fs::path www() const { return scratch_.path() / "www"; }
    fs::path storage() const { return scratch_.path() / "storage"; }
    fs::path servedPack(int revision, const std::string& domain) const;

    void writeSource(std::size_t mapsSize = 256 * 1024);
    // Runs `publish`; fails the test when it does not succeed.
    void publish();
    // Serves the published tree with `serve` plus `options`, logging to accessLog().
    void serve(const std::vector<std::string>& options);
    fs::path accessLog() const { return scratch_.path() / "access.log"; }

    std::vector<std::string> withGlobals(const std::vector<std::string>& words,
                                         const std::string& user = "alice") const;
    RunResult tool(const std::vector<std::string>& words) { return runTool(withGlobals(words)); }
    // The tool in the background.
    std::unique_ptr<ChildProcess> spawn(const std::vector<std::string>& words,
                                        const std::vector<std::string>& environment = {});
    // A member of every stored pack as `status --json` lists it, by "revision/domain" ("" for
    // null); for the error, its code.
    std::map<std::string, std::string> stored(const std::string& key = "state");
    // The largest regular file in the storage (0 when there is none): how far a download came,
    // whatever names the HTTP layer gives its partial files.
    std::uint64_t largestStoredFile() const;

    ScratchDirectory scratch_;
    std::unique_ptr<ChildProcess> server_;
    std::string baseUrl_;
};

}  // namespace terrane::tool::test
