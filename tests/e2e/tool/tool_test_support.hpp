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

std::string readFile(const fs::path& path);

struct RunResult {
    // The exit status, or minus the signal number when a signal ended the process.
    int status = -1;
    std::string out;
    std::string err;
};

// The tool with `arguments` as a child process with stdout and stderr going to files in `work`,
// and TERRANE_ACCESS_TOKEN unset unless `environment` sets it. The destructor kills (SIGKILL) and
// reaps a child that still runs.
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
    std::string out() const { return readFile(outPath_); }
    std::string err() const { return readFile(errPath_); }
    // The "http://127.0.0.1:PORT" that a server child announces on stdout; throws when none comes
    // within 10 s.
    std::string announcedUrl() const;

  private:
    pid_t pid_ = -1;
    int status_ = -1;
    fs::path outPath_;
    fs::path errPath_;
};

// The words of `text`, split at spaces.
std::vector<std::string> words(const std::string& text);

// Deterministic file contents.
std::string patternBytes(std::size_t size, unsigned seed);
void writeFile(const fs::path& path, const std::string& contents);

// One line of the access log of `serve`.
struct AccessEntry {
    std::string method;
    std::string path;
    int status = 0;
    std::uint64_t bytes = 0;
    std::string range;
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

// A fresh directory for the tool's runs, removed with its contents. Below it, a user "alice" whose
// catalogue `serve` offers: region "harbour" (revision 2, maps and navigation, a Feature outline)
// and region "plain" (revision 5, maps only, no outline, a description with terminal escapes);
// and a storage for the tool.
class ToolTest : public ::testing::Test {
  protected:
    ToolTest();
    ~ToolTest() override;

    fs::path source() const { return scratch_ / "source"; }
    fs::path www() const { return scratch_ / "www"; }
    fs::path storage() const { return scratch_ / "storage"; }
    fs::path servedPack(int revision, const std::string& domain) const;

    void writeSource(std::size_t mapsSize = 256 * 1024);
    // Runs `publish`; fails the test when it does not succeed.
    void publish();
    // Serves the published tree with `serve` plus `options`, logging to accessLog().
    void serve(const std::vector<std::string>& options);
    fs::path accessLog() const { return scratch_ / "access.log"; }

    // The tool in the background.
    std::unique_ptr<ChildProcess> start(const std::vector<std::string>& arguments,
                                        const std::vector<std::string>& environment = {}) const;
    // The tool to its end (killed after `limit`, which fails the test).
    RunResult run(const std::vector<std::string>& arguments,
                  const std::vector<std::string>& environment = {},
                  std::chrono::seconds limit = 120s) const;
    // The tool with this storage, the served catalogue and `user`.
    std::vector<std::string> withGlobals(const std::vector<std::string>& words,
                                         const std::string& user = "alice") const;
    RunResult tool(const std::vector<std::string>& words) const { return run(withGlobals(words)); }
    // A member of every stored pack as `status --json` lists it, by "revision/domain" ("" for
    // null); for the error, its code.
    std::map<std::string, std::string> stored(const std::string& key = "state");
    // The largest regular file in the storage (0 when there is none): how far a download came,
    // whatever names the HTTP layer gives its partial files.
    std::uint64_t largestStoredFile() const;

    fs::path scratch_;
    std::unique_ptr<ChildProcess> server_;
    std::string baseUrl_;
};

}  // namespace terrane::tool::test
