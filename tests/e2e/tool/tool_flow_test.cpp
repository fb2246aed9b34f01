// The tool's main job against a catalogue server: list what `publish` wrote, resume after Ctrl-C
// and after a kill, recover from a corrupt pack, renew a lease at restart, and delete; then
// `update` to a newer revision after a download that rode out a server going away mid-transfer.

#include <signal.h>

#include <tuple>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

using Packs = std::map<std::string, std::string>;

constexpr std::size_t kMapsSize = 3 * 1024 * 1024;
const std::string kPaced = std::to_string(1024 * 1024);

class ToolFlowTest : public ToolTest {
  protected:
    // The requests for harbour's `domain` pack with `method`, as the server logged them.
    std::vector<AccessEntry> requests(const std::string& domain,
                                      const std::string& method = "GET") const {
        std::vector<AccessEntry> found;
        for (const AccessEntry& entry : readAccessLog(accessLog())) {
            if (entry.method == method && entry.path.ends_with("/harbour/2/" + domain + ".pack")) {
                found.push_back(entry);
            }
        }
        return found;
    }

    // A download of harbour's maps pack in the background, once `bytes` of it are on disk.
    std::unique_ptr<ChildProcess> startDownload(std::uint64_t bytes) {
        auto child = start(withGlobals({"download", "harbour", "--domain", "maps"}));
        EXPECT_TRUE(eventually([&] { return largestStoredFile() >= bytes; }, 60s)) << child->err();
        return child;
    }
};

TEST_F(ToolFlowTest, ListsResumesRecoversRenewsAndDeletes) {
    writeSource(kMapsSize);
    publish();
    serve({"--port", "0", "--max-age", "10", "--rate", kPaced});

    RunResult result;
    // Ctrl-C, then a kill: each run resumes where the one before stopped.
    auto child = startDownload(512 * 1024);
    child->signal(SIGINT);
    ASSERT_EQ(child->wait(30s), 130) << child->err();
    EXPECT_NE(child->err().find("interrupted; the downloads were cancelled"), std::string::npos)
        << child->err();
    EXPECT_EQ(stored()["2/maps"], "Incomplete");
    child = startDownload(1536 * 1024);
    child->signal(SIGKILL);
    ASSERT_EQ(child->wait(10s), -SIGKILL);

    // The navigation pack no longer matches the catalogue's checksum.
    const std::string navigation = readFile(servedPack(2, "navigation"));
    writeFile(servedPack(2, "navigation"), patternBytes(navigation.size(), 99));
    result = tool({"download", "harbour"});
    const auto downloaded = std::chrono::steady_clock::now();
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find("maps pack of harbour/2 is available"), std::string::npos);
    EXPECT_NE(result.out.find("navigation pack of harbour/2 failed: Corrupt: Failed to verify "
                              "checksum"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.err.find("1 of 2 packs did not become available"), std::string::npos);
    // Each run after the first asked for the rest only; the last one got all of it.
    const auto gets = requests("maps");
    ASSERT_EQ(gets.size(), 3u);
    const std::uint64_t afterCtrlC = std::stoull(gets[1].range.substr(6));
    const std::uint64_t afterKill = std::stoull(gets[2].range.substr(6));
    EXPECT_EQ(std::tuple(gets[0].range, gets[1].status, gets[2].status, afterKill + gets[2].bytes),
              std::tuple("", 206, 206, kMapsSize));
    EXPECT_GE(afterCtrlC, 512u * 1024);
    EXPECT_GT(afterKill, afterCtrlC);
    Packs paths = stored("path");
    EXPECT_EQ(readFile(paths["2/maps"]), readFile(servedPack(2, "maps")));
    EXPECT_EQ(stored("error"), (Packs{{"2/maps", ""}, {"2/navigation", "Corrupt"}}));
    const std::string lease = stored("lease_expires")["2/maps"];
    EXPECT_TRUE(requests("maps", "HEAD").empty()) << "a fresh lease is not renewed";

    // A corrupt pack can be deleted, and is fetched again from the start once fixed. A trailing
    // slash names the same account.
    result = tool({"delete", "harbour", "--domain", "navigation"});
    EXPECT_NE(result.out.find("deleted navigation pack of harbour/2"), std::string::npos);
    writeFile(servedPack(2, "navigation"), navigation);
    baseUrl_ += "/";
    result = tool({"download", "harbour"});
    baseUrl_.pop_back();
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("maps pack of harbour/2 is already available"), std::string::npos);
    EXPECT_EQ(requests("maps").size(), 3u);
    ASSERT_FALSE(requests("navigation").empty());
    EXPECT_EQ(requests("navigation").back().range, "");

    // Half the lease gone: the next start renews it with a conditional request.
    std::this_thread::sleep_until(downloaded + 5s + 700ms);
    EXPECT_GT(stored("lease_expires")["2/maps"], lease);
    const auto heads = requests("maps", "HEAD");
    ASSERT_EQ(heads.size(), 1u);
    EXPECT_EQ(heads[0].status, 304) << "only a conditional request gets a 304";

    ASSERT_EQ(tool({"delete", "harbour", "--domain", "maps"}).status, 0);
    EXPECT_FALSE(fs::exists(paths["2/maps"]));
    EXPECT_FALSE(fs::exists(paths["2/maps"] + ".json"));
    EXPECT_EQ(stored(), (Packs{{"2/navigation", "Available"}}));
    ASSERT_EQ(tool({"delete", "harbour"}).status, 0);
    EXPECT_TRUE(stored().empty());
}

TEST_F(ToolFlowTest, UpdatesAfterADownloadThatRodeOutAServerGoingAway) {
    writeSource(kMapsSize);
    publish();
    serve({"--port", "0", "--rate", kPaced});
    auto download = start(withGlobals({"download", "harbour", "--no-wan"}));
    ASSERT_TRUE(eventually([&] { return largestStoredFile() >= 512 * 1024; }, 30s));
    server_.reset();  // killed, mid-body
    ASSERT_TRUE(
        eventually([&] { return download->out().find("trying again") != std::string::npos; }, 20s))
        << download->out();
    serve({"--port", baseUrl_.substr(baseUrl_.rfind(':') + 1)});
    ASSERT_EQ(download->wait(60s), 0) << download->out() << download->err();
    EXPECT_NE(download->out().find("maps pack of harbour/2 is available"), std::string::npos);
    EXPECT_EQ(tool({"status"}).out.find("is out"), std::string::npos);

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
        const RunResult result = tool(row.command);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_NE(result.out.find(row.says), std::string::npos) << result.out;
    }
    EXPECT_EQ(stored(), (Packs{{"3/maps", "Available"}, {"3/navigation", "Available"}}));
}

}  // namespace
}  // namespace terrane::tool::test
