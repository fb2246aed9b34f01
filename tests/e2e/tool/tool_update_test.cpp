// The tool on top of the request-and-wait client: `update` brings a stored region to the
// catalogue's newer revision, and `download` rides out a server that goes away mid-transfer.

#include <gtest/gtest.h>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

using namespace std::chrono_literals;

class ToolUpdateTest : public ::testing::Test {
  protected:
    std::vector<std::string> withGlobals(const std::vector<std::string>& words) const {
        std::vector<std::string> arguments{"--storage",  (scratch_.path() / "storage").string(),
                                           "--base-url", baseUrl_,
                                           "--user",     "alice"};
        arguments.insert(arguments.end(), words.begin(), words.end());
        return arguments;
    }

    RunResult tool(const std::vector<std::string>& words) { return runTool(withGlobals(words)); }

    // revision/domain of every stored pack, as `status --json` lists them.
    std::vector<std::string> stored() {
        const RunResult result = tool({"--json", "status"});
        std::vector<std::string> packs;
        const auto listing = parseJson(result.out);
        for (const auto& entry : listing.GetArray()) {
            packs.push_back(std::to_string(entry["revision"].GetUint()) + "/" +
                            entry["domain"].GetString());
        }
        return packs;
    }

    fs::path source() const { return scratch_.path() / "source"; }
    fs::path www() const { return scratch_.path() / "www"; }

    ScratchDirectory scratch_;
    std::string baseUrl_;
};

TEST_F(ToolUpdateTest, NewerRevisionIsMarkedThenDownloadedAndTheOlderOneDeleted) {
    writeSource(source());
    publish(source(), www(), "alice");
    const auto server = startServe({www(), scratch_.path() / "server"});
    baseUrl_ = server->baseUrl;
    ASSERT_EQ(tool({"download", "harbour", "--no-wan"}).status, 0);
    EXPECT_EQ(tool({"status"}).out.find("is out"), std::string::npos);

    std::string regions = readFile(source() / "regions.json");
    regions.replace(regions.find("\"revision\": 2"), 13, "\"revision\": 3");
    writeFile(source() / "regions.json", regions);
    writeFile(source() / "harbour-maps.bin", patternBytes(100000, 7));
    publish(source(), www(), "alice");

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
        if (row.command.back() == "--dry-run") {
            EXPECT_EQ(stored(), (std::vector<std::string>{"2/maps", "2/navigation"}));
        }
    }
    EXPECT_EQ(stored(), (std::vector<std::string>{"3/maps", "3/navigation"}));
}

TEST_F(ToolUpdateTest, DownloadRidesOutAServerThatGoesAwayMidTransfer) {
    SourcePacks sizes;
    sizes.harbourMaps = 3 * 1024 * 1024;
    writeSource(source(), sizes);
    publish(source(), www(), "alice");
    const std::string port = std::to_string(unusedPort());
    baseUrl_ = "http://127.0.0.1:" + port;
    const std::vector<std::string> serve{
        kTool, "serve", www().string(), "--port", port, "--rate", std::to_string(1024 * 1024)};
    auto server = std::make_unique<ChildProcess>(serve, scratch_.path() / "serve");
    server->announcedPort();

    std::vector<std::string> command = withGlobals({"download", "harbour"});
    command.insert(command.begin(), kTool);
    ChildProcess download(command, scratch_.path() / "download");
    ASSERT_TRUE(eventually(
        [&] { return largestFileBelow(scratch_.path() / "storage") >= 512 * 1024; }, 30s));
    server.reset();  // killed, mid-body
    ASSERT_TRUE(
        eventually([&] { return download.out().find("trying again") != std::string::npos; }, 20s))
        << download.out();
    server = std::make_unique<ChildProcess>(serve, scratch_.path() / "serve");
    ASSERT_EQ(download.wait(60s), 0) << download.out() << download.err();
    EXPECT_NE(download.out().find("maps pack of harbour/2 is available"), std::string::npos);
}

}  // namespace
}  // namespace terrane::tool::test
