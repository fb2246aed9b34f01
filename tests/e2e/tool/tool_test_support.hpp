#pragma once

// Helpers for running terrane-offline as a user would: as a child process with its own stdout and
// stderr, against catalogues that the tool's own `serve` offers on loopback ports chosen by the
// system. One test thread at a time.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace terrane::tool::test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Polls `condition` every 20 ms until it holds or `limit` passes.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit) {
    for (const auto deadline = std::chrono::steady_clock::now() + limit; !condition();
         std::this_thread::sleep_for(20ms)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
    }
    return true;
}

inline std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void writeFile(const fs::path& path, const std::string& contents) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

// Deterministic file contents.
inline std::string patternBytes(std::size_t size, unsigned seed) {
    std::minstd_rand random(seed);
    std::string bytes(size, '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    return bytes;
}

// Parsed JSON output of the tool; throws when it is not JSON.
inline rapidjson::Document parseJson(const std::string& text) {
    rapidjson::Document document;
    if (document.Parse(text.c_str()).HasParseError()) {
        throw std::runtime_error("not JSON: " + text);
    }
    return document;
}

// `words` (a path to an executable, then its arguments) as a child process with stdin from
// /dev/null and stdout and stderr going to the files `stem`.out and `stem`.err. The destructor
// kills (SIGKILL) and reaps a child that still runs.
class ChildProcess {
  public:
    ChildProcess(std::vector<std::string> words, const std::string& stem)
        : outPath_(stem + ".out"), errPath_(stem + ".err") {
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        // A failed fork leaves a child that has ended with status -1.
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(::open("/dev/null", O_RDONLY), 0);
            ::dup2(::open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
            ::dup2(::open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
    }
    ~ChildProcess() {
        signal(SIGKILL);
        wait(10s);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) {
        if (pid_ > 0) {
            ::kill(pid_, number);
        }
    }
    // Waits for the end; the exit status, or minus the number of the signal that ended the
    // process; nullopt after `limit`.
    std::optional<int> wait(std::chrono::milliseconds limit) {
        int raw = 0;
        if (pid_ > 0) {
            if (!eventually([&] { return ::waitpid(pid_, &raw, WNOHANG) == pid_; }, limit)) {
                return std::nullopt;
            }
            pid_ = -1;
            status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -WTERMSIG(raw);
        }
        return status_;
    }
    // What wait() returned last; -1 before.
    int status() const { return status_; }
    std::string out() const { return readFile(outPath_); }
    std::string err() const { return readFile(errPath_); }

  private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::string outPath_;
    std::string errPath_;
};

using Child = std::unique_ptr<ChildProcess>;

// A fresh directory for the tool's runs, removed with its contents. Below it, a user "alice" whose
// catalogue `serve` offers: region "harbour" (revision 2, maps and navigation, a Feature outline)
// and region "plain" (revision 5, maps only, no outline, a description with terminal escapes);
// and a storage for the tool.
class ToolTest : public ::testing::Test {
  protected:
    // Each test runs in a process of its own.
    ToolTest() {
        fs::remove_all(scratch_);
        fs::create_directories(scratch_);
    }
    ~ToolTest() override {
        server_.reset();
        std::error_code ignored;
        fs::remove_all(scratch_, ignored);
    }

    fs::path source() const { return scratch_ / "source"; }
    fs::path www() const { return scratch_ / "www"; }
    fs::path storage() const { return scratch_ / "storage"; }
    fs::path accessLog() const { return scratch_ / "access.log"; }
    fs::path servedPack(int revision, const std::string& domain) const {
        return www() / "offline-data" / "v1" / "alice" / "packs" / "harbour" /
               std::to_string(revision) / (domain + ".pack");
    }

    void writeSource(std::size_t mapsSize = 256 * 1024) {
        writeFile(source() / "harbour-maps.bin", patternBytes(mapsSize, 1));
        writeFile(source() / "harbour-navigation.bin", patternBytes(128 * 1024 + 7, 2));
        writeFile(source() / "plain-maps.bin", patternBytes(64 * 1024, 3));
        writeFile(source() / "harbour.geojson",
                  R"({"type":"Feature","properties":{},"geometry":{"type":"Point",)"
                  R"("coordinates":[10.5,59.9]}})");
        writeFile(source() / "regions.json", R"({"regions": {
    "harbour": {"name": "Harbour City", "description": "Test region", "revision": 2,
      "last_updated": "2024-03-01T10:00:00Z", "geography": "harbour.geojson", "packs": {
        "maps": {"file": "harbour-maps.bin", "data_version": "2024.03"},
        "navigation": "harbour-navigation.bin"}},
    "plain": {"revision": 5, "description": "Plain\u001b[2J\r\nforged line",
      "packs": {"maps": "plain-maps.bin"}}}})");
    }
    // Runs `publish`; fails the test when it does not succeed.
    void publish() {
        const Child result = run({"publish", source().string(), www().string(), "--user", "alice"});
        ASSERT_EQ(result->status(), 0) << result->err();
    }
    // Serves the published tree with `serve` plus `options`, logging to accessLog().
    void serve(std::vector<std::string> options) {
        options.insert(options.begin(), {"serve", www().string(), "--access-log", accessLog()});
        server_ = start(options);
        // It says "Serving ROOT on URL (loopback only; ...".
        std::string out;
        if (!eventually([&] { return (out = server_->out()).ends_with(")\n"); }, 10s)) {
            throw std::runtime_error("no server address announced: " + server_->err());
        }
        const std::size_t from = out.find(" on ") + 4;
        baseUrl_ = out.substr(from, out.find(" (", from) - from);
    }

    // The tool (as built alongside these tests) in the background, with TERRANE_ACCESS_TOKEN unset
    // unless environment_ sets it (env(1) sets the environment, then becomes the tool).
    Child start(const std::vector<std::string>& arguments) {
        std::vector<std::string> words{"/usr/bin/env", "-u", "TERRANE_ACCESS_TOKEN"};
        words.insert(words.end(), environment_.begin(), environment_.end());
        words.push_back(TERRANE_OFFLINE_TOOL);
        words.insert(words.end(), arguments.begin(), arguments.end());
        return std::make_unique<ChildProcess>(words, scratch_ / std::to_string(++children_));
    }
    // The tool to its end (killed after two minutes, which fails the test).
    Child run(const std::vector<std::string>& arguments) {
        Child child = start(arguments);
        EXPECT_TRUE(child->wait(120s)) << "terrane-offline did not finish within two minutes";
        return child;
    }
    // The tool with this storage, the served catalogue and user "alice".
    std::vector<std::string> withGlobals(std::vector<std::string> words) const {
        words.insert(words.begin(),
                     {"--storage", storage(), "--base-url", baseUrl_, "--user", "alice"});
        return words;
    }
    Child tool(const std::vector<std::string>& words) { return run(withGlobals(words)); }
    // The regular files below the storage now and their sizes, while the tool may be renaming and
    // removing them.
    std::map<fs::path, std::uintmax_t> storedFiles() const {
        std::map<fs::path, std::uintmax_t> files;
        std::error_code error;
        for (fs::recursive_directory_iterator entry(storage(), error), end; !error && entry != end;
             entry.increment(error)) {
            // A file the tool removes meanwhile is passed over, not the end of the walk; a
            // directory has no size.
            std::error_code notAFile;
            if (const std::uintmax_t size = entry->file_size(notAFile); !notAFile) {
                files[entry->path()] = size;
            }
        }
        return files;
    }

    const fs::path scratch_ =
        fs::temp_directory_path() / ("terrane-tool-e2e-" + std::to_string(::getpid()));
    // NAME=VALUE settings for every run of the tool.
    std::vector<std::string> environment_;
    int children_ = 0;
    Child server_;
    std::string baseUrl_;
};

}  // namespace terrane::tool::test
