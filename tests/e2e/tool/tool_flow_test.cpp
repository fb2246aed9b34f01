// The tool's main job against a catalogue server: resume after Ctrl-C and after a kill, wait for
// another process that holds the storage, recover from a corrupt pack, ride out a server going
// away mid-transfer, and `update` to a newer revision.

#include <signal.h>

#include <cstdio>
#include <sstream>
#include <string_view>
#include <tuple>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

using Packs = std::map<std::string, std::string>;

constexpr std::size_t kMapsSize = 3 * 1024 * 1024;

class ToolFlowTest : public ToolTest {
  protected:
    // A member of every stored pack as `status --json` lists it, by "revision/domain" ("" for
    // null); for the error, its code.
    std::map<std::string, std::string> stored(const std::string& key = "state") {
        const Child result = tool({"--json", "status"});
        EXPECT_EQ(result->status(), 0) << result->err();
        const auto listing = parseJson(result->out());
        std::map<std::string, std::string> packs;
        for (const auto& pack : listing.GetArray()) {
            const auto& member = pack[key.c_str()];
            const auto& value = member.IsObject() ? member["code"] : member;
            packs[std::to_string(pack["revision"].GetUint()) + "/" + pack["domain"].GetString()] =
                value.IsString() ? value.GetString() : "";
        }
        return packs;
    }
    // A download of harbour's maps pack in the background, once `bytes` of it are on disk.
    Child startDownload(std::uint64_t bytes) {
        auto child = start(withGlobals({"download", "harbour", "--domain", "maps", "--no-wan"}));
        // Whatever names the HTTP layer gives its partial files.
        const auto reached = [&](const auto& file) { return file.second >= bytes; };
        EXPECT_TRUE(eventually([&] { return std::ranges::any_of(storedFiles(), reached); }, 60s))
            << child->err();
        return child;
    }
    void serve(const std::string& port) {
        ToolTest::serve({"--port", port, "--max-age", "10", "--rate", "1048576"});
    }
};

TEST_F(ToolFlowTest, ResumesWaitsForTheStorageRecoversRidesOutAServerGoingAwayAndUpdates) {
    writeSource(kMapsSize);
    publish();
    serve("0");

    // Ctrl-C, then a kill: each run resumes where the one before stopped.
    auto child = startDownload(512 * 1024);
    child->signal(SIGINT);
    ASSERT_EQ(child->wait(30s), 130) << child->err();
    EXPECT_TRUE(child->err().contains("interrupted; the downloads were cancelled")) << child->err();
    EXPECT_EQ(stored()["2/maps"], "Incomplete");
    // While a download holds the storage (held still, however fast the machine is), a second
    // process gives up after --wait seconds with status five, and a third waits for the kill.
    child = startDownload(1536 * 1024);
    child->signal(SIGSTOP);
    const Child refused = start(withGlobals({"--wait", "1", "download", "harbour"}));
    EXPECT_EQ(refused->wait(60s), 5) << refused->err();
    EXPECT_TRUE(refused->err().contains("is in use by another process (pid " +
                                        std::to_string(child->pid()) + ")"))
        << refused->err();
    // The navigation pack no longer matches the catalogue's checksum.
    const std::string navigation = readFile(servedPack(2, "navigation"));
    writeFile(servedPack(2, "navigation"), patternBytes(navigation.size(), 99));
    Child result = start(withGlobals({"--wait", "60", "download", "harbour"}));
    child->signal(SIGKILL);
    ASSERT_EQ(child->wait(10s), -SIGKILL);
    ASSERT_EQ(result->wait(120s), 1) << result->err();
    EXPECT_TRUE(result->out().contains("maps pack of harbour/2 is available")) << result->out();
    EXPECT_TRUE(result->out().contains(
        "navigation pack of harbour/2 failed: Corrupt: Failed to verify checksum"));
    EXPECT_TRUE(result->err().contains("1 of 2 packs did not become available"));
    // Each run after the first asked for the rest only; the last one got all of it. The server
    // logs a GET as: GET PATH STATUS BYTES range=VALUE ..., where VALUE is "-" for the whole pack.
    // Each is kept as its status, its bytes and where it started.
    std::vector<std::tuple<int, unsigned long long, unsigned long long>> gets;
    std::istringstream log(readFile(accessLog()));
    for (std::string line; std::getline(log, line);) {
        char path[512];
        int status = 0;
        unsigned long long bytes = 0;
        unsigned long long from = 0;
        if (std::sscanf(line.c_str(), "GET %511s %d %llu range=bytes=%llu-", path, &status, &bytes,
                        &from) >= 3 &&
            std::string_view(path).ends_with("/harbour/2/maps.pack")) {
            gets.emplace_back(status, bytes, from);
        }
    }
    ASSERT_EQ(gets.size(), 3u);
    const auto afterCtrlC = std::get<2>(gets[1]);
    const auto afterKill = std::get<2>(gets[2]);
    EXPECT_EQ(std::tuple(std::get<2>(gets[0]), std::get<0>(gets[1]), std::get<0>(gets[2]),
                         afterKill + std::get<1>(gets[2])),
              std::tuple(0ull, 206, 206, kMapsSize));
    EXPECT_GE(afterCtrlC, 512u * 1024);
    EXPECT_GT(afterKill, afterCtrlC);
    EXPECT_EQ(readFile(stored("path")["2/maps"]), readFile(servedPack(2, "maps")));
    EXPECT_EQ(stored("error"), (Packs{{"2/maps", ""}, {"2/navigation", "Corrupt"}}));
    EXPECT_TRUE(stored("lease_expires")["2/maps"].starts_with("20"));

    // A corrupt pack can be deleted, and is fetched again once fixed. A trailing slash names the
    // same account.
    result = tool({"delete", "harbour", "--domain", "navigation"});
    EXPECT_TRUE(result->out().contains("deleted navigation pack of harbour/2"));
    writeFile(servedPack(2, "navigation"), navigation);
    baseUrl_ += "/";
    result = tool({"download", "harbour"});
    baseUrl_.pop_back();
    EXPECT_EQ(result->status(), 0) << result->out() << result->err();
    EXPECT_TRUE(result->out().contains("maps pack of harbour/2 is already available"));

    // Deleted, then downloaded again while the server goes away mid-body and comes back.
    ASSERT_EQ(tool({"delete", "harbour", "--domain", "maps"})->status(), 0);
    child = startDownload(512 * 1024);
    server_.reset();  // killed
    ASSERT_TRUE(eventually([&] { return child->out().contains("trying again"); }, 20s))
        << child->out();
    serve(baseUrl_.substr(baseUrl_.rfind(':') + 1));
    ASSERT_EQ(child->wait(60s), 0) << child->out() << child->err();
    EXPECT_FALSE(tool({"status"})->out().contains("is out"));

    std::string regions = readFile(source() / "regions.json");
    regions.replace(regions.find("\"revision\": 2"), 13, "\"revision\": 3");
    writeFile(source() / "regions.json", regions);
    writeFile(source() / "harbour-maps.bin", patternBytes(100000, 7));
    publish();
    const struct {
        std::vector<std::string> command;
        std::string says;
    } rows[] = {
        {{"status"}, "revision 3 is out: terrane-offline update harbour"},
        {{"update", "--dry-run"}, "would update harbour from revision 2 to 3 (maps 97.7 KiB, "},
        {{"update", "--no-retry"}, "deleted navigation pack of harbour/2"},
        {{"update", "harbour"}, "at the catalogue's latest revision"},
    };
    for (const auto& row : rows) {
        result = tool(row.command);
        EXPECT_EQ(result->status(), 0) << result->err();
        EXPECT_TRUE(result->out().contains(row.says)) << result->out();
    }
    EXPECT_EQ(stored(), (Packs{{"3/maps", "Available"}, {"3/navigation", "Available"}}));
    ASSERT_EQ(tool({"delete", "harbour"})->status(), 0);
    EXPECT_TRUE(stored().empty());
}

}  // namespace
}  // namespace terrane::tool::test
