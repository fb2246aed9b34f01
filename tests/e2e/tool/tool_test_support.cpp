#include "tool_test_support.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>

namespace terrane::tool::test {

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const fs::path& work,
                           const std::vector<std::string>& environment) {
    fs::create_directories(work);
    static int counter = 0;
    const std::string stem = "child-" + std::to_string(++counter);
    outPath_ = work / (stem + ".out");
    errPath_ = work / (stem + ".err");
    std::vector<std::string> copies = arguments;
    copies.insert(copies.begin(), kTool);
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
    signal(SIGKILL);
    wait(10s);
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

std::string ChildProcess::announcedUrl() const {
    const std::string prefix = "http://127.0.0.1:";
    if (!eventually([&] { return out().find(prefix) != std::string::npos; }, 10s)) {
        throw std::runtime_error("no server address announced: " + err());
    }
    const std::string text = out().substr(out().find(prefix));
    return prefix + std::to_string(std::stoi(text.substr(prefix.size())));
}

std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

std::string patternBytes(std::size_t size, unsigned seed) {
    std::minstd_rand random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
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

std::vector<AccessEntry> readAccessLog(const fs::path& log) {
    std::vector<AccessEntry> entries;
    std::istringstream in(readFile(log));
    AccessEntry entry;
    std::string rest;
    // Header fields come as name=value, "-" for none.
    while (in >> entry.method >> entry.path >> entry.status >> entry.bytes >> entry.range &&
           std::getline(in, rest)) {
        entry.range = entry.range.ends_with("=-") ? "" : entry.range.substr(6);
        entries.push_back(entry);
    }
    return entries;
}

rapidjson::Document parseJson(const std::string& text) {
    rapidjson::Document document;
    if (document.Parse(text.c_str()).HasParseError()) {
        throw std::runtime_error("not JSON: " + text);
    }
    return document;
}

ToolTest::ToolTest() {
    std::string pattern = (fs::temp_directory_path() / "terrane-tool-e2e-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    scratch_ = pattern;
}

ToolTest::~ToolTest() {
    server_.reset();
    std::error_code ignored;
    fs::remove_all(scratch_, ignored);
}

fs::path ToolTest::servedPack(int revision, const std::string& domain) const {
    return www() / "offline-data" / "v1" / "alice" / "packs" / "harbour" /
           std::to_string(revision) / (domain + ".pack");
}

void ToolTest::writeSource(std::size_t mapsSize) {
    writeFile(source() / "harbour-maps.bin", patternBytes(mapsSize, 1));
    writeFile(source() / "harbour-navigation.bin", patternBytes(128 * 1024 + 7, 2));
    writeFile(source() / "plain-maps.bin", patternBytes(64 * 1024, 3));
    writeFile(
        source() / "harbour.geojson",
        R"({"type":"Feature","properties":{},"geometry":{"type":"Point","coordinates":[10.5,59.9]}})");
    writeFile(source() / "regions.json", R"({"regions": {
    "harbour": {"name": "Harbour City", "description": "Test region", "revision": 2,
      "last_updated": "2024-03-01T10:00:00Z", "geography": "harbour.geojson", "packs": {
        "maps": {"file": "harbour-maps.bin", "data_version": "2024.03"},
        "navigation": "harbour-navigation.bin"}},
    "plain": {"revision": 5, "description": "Plain\u001b[2J\r\nforged line",
      "packs": {"maps": "plain-maps.bin"}}}})");
}

void ToolTest::publish() {
    const RunResult result = run({"publish", source().string(), www().string(), "--user", "alice"});
    ASSERT_EQ(result.status, 0) << result.err;
}

void ToolTest::serve(const std::vector<std::string>& options) {
    std::vector<std::string> command{"serve", www().string(), "--access-log", accessLog().string()};
    command.insert(command.end(), options.begin(), options.end());
    server_ = start(command);
    baseUrl_ = server_->announcedUrl();
}

std::vector<std::string> ToolTest::withGlobals(const std::vector<std::string>& words,
                                               const std::string& user) const {
    std::vector<std::string> arguments{"--storage", storage().string(), "--base-url",
                                       baseUrl_,    "--user",           user};
    arguments.insert(arguments.end(), words.begin(), words.end());
    return arguments;
}

std::unique_ptr<ChildProcess> ToolTest::start(const std::vector<std::string>& arguments,
                                              const std::vector<std::string>& environment) const {
    return std::make_unique<ChildProcess>(arguments, scratch_ / "runs", environment);
}

RunResult ToolTest::run(const std::vector<std::string>& arguments,
                        const std::vector<std::string>& environment,
                        std::chrono::seconds limit) const {
    const auto child = start(arguments, environment);
    const auto status = child->wait(limit);
    EXPECT_TRUE(status) << "terrane-offline did not finish within " << limit.count() << " s";
    return RunResult{status.value_or(-1), child->out(), child->err()};
}

std::map<std::string, std::string> ToolTest::stored(const std::string& key) {
    const RunResult result = tool({"--json", "status"});
    EXPECT_EQ(result.status, 0) << result.err;
    const auto listing = parseJson(result.out);
    std::map<std::string, std::string> packs;
    for (const auto& pack : listing.GetArray()) {
        const auto& member = pack[key.c_str()];
        const auto& value = member.IsObject() ? member["code"] : member;
        packs[std::to_string(pack["revision"].GetUint()) + "/" + pack["domain"].GetString()] =
            value.IsString() ? value.GetString() : "";
    }
    return packs;
}

std::uint64_t ToolTest::largestStoredFile() const {
    std::uint64_t largest = 0;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(storage(), error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code sizeError;
        if (entry->is_regular_file(sizeError)) {
            largest = std::max<std::uint64_t>(largest, entry->file_size(sizeError));
        }
    }
    return largest;
}

}  // namespace terrane::tool::test
