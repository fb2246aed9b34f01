// What a user sees when the tool cannot work: one clear line on stderr and a non-zero exit,
// never a crash, an abort or a C++ exception text.

#include <gtest/gtest.h>
#include <unistd.h>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

class BadInputTest : public ::testing::Test {
  protected:
    void expectOneClearLine(const RunResult& result, int status, const std::string& expected) {
        EXPECT_EQ(result.status, status) << result.err;
        const auto lines = result.errLines();
        ASSERT_EQ(lines.size(), 1u) << result.err;
        EXPECT_TRUE(lines[0].starts_with("terrane-offline: ")) << lines[0];
        EXPECT_NE(lines[0].find(expected), std::string::npos) << lines[0];
        for (const char* crash : {"terminate called", "Aborted", "what():", "Segmentation"}) {
            EXPECT_EQ(result.err.find(crash), std::string::npos) << result.err;
        }
    }

    ScratchDirectory scratch_;
};

TEST_F(BadInputTest, StorageBelowAPlainFileIsRefusedBeforeAnythingStarts) {
    writeFile(scratch_.path() / "plain-file", "x");
    const std::string storage = (scratch_.path() / "plain-file" / "storage").string();
    for (const char* command : {"download", "delete"}) {
        const RunResult result = runTool({"--storage", storage, "--base-url",
                                          "http://127.0.0.1:" + std::to_string(unusedPort()),
                                          "--user", "alice", command, "harbour"});
        expectOneClearLine(result, 5, "storage directory '" + storage + "' is not usable");
    }
}

TEST_F(BadInputTest, ListingAndStatusCreateNoStorage) {
    const auto storage = scratch_.path() / "new";
    const std::string url = "http://127.0.0.1:" + std::to_string(unusedPort());
    RunResult result =
        runTool({"--storage", storage.string(), "--base-url", url, "--user", "alice", "regions"});
    EXPECT_EQ(result.status, 4) << result.err;
    result = runTool({"--storage", storage.string(), "status"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("No packs stored"), std::string::npos) << result.out;
    EXPECT_FALSE(fs::exists(storage));
}

TEST_F(BadInputTest, ReadOnlyStorageIsRefusedForOrdinaryUsers) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "root writes into read-only directories; the plain-file case covers root";
    }
    const auto storage = scratch_.path() / "read-only";
    fs::create_directories(storage);
    fs::permissions(storage, fs::perms::owner_read | fs::perms::owner_exec);
    const RunResult result =
        runTool({"--storage", storage.string(), "--user", "alice", "download", "harbour"});
    expectOneClearLine(result, 5, "is not usable: Permission denied");
}

TEST_F(BadInputTest, MissingTokenFileNamesTheFileAndNeverStartsTheService) {
    const auto storage = scratch_.path() / "storage";
    const std::string tokenFile = (scratch_.path() / "no-such-token").string();
    const RunResult result = runTool(
        {"--storage", storage.string(), "--token-file", tokenFile, "--user", "alice", "regions"});
    expectOneClearLine(result, 5,
                       "cannot read token file '" + tokenFile + "': No such file or directory");
    EXPECT_FALSE(fs::exists(storage));
}

TEST_F(BadInputTest, EmptyTokenFileAndDirectoryAsTokenFileAreRefused) {
    writeFile(scratch_.path() / "empty-token", "\n  \n");
    RunResult result =
        runTool({"--storage", (scratch_.path() / "s").string(), "--token-file",
                 (scratch_.path() / "empty-token").string(), "--user", "a", "regions"});
    expectOneClearLine(result, 5, "holds no token");
    result = runTool({"--storage", (scratch_.path() / "s").string(), "--token-file",
                      scratch_.path().string(), "--user", "a", "regions"});
    expectOneClearLine(result, 5, "Is a directory");
}

TEST_F(BadInputTest, UnreachableCatalogueEndsWithExitStatusFourAndNoToken) {
    const std::string url = "http://127.0.0.1:" + std::to_string(unusedPort());
    writeFile(scratch_.path() / "token", "secret-token-4711\n");
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"regions"}, std::vector<std::string>{"download", "harbour"}}) {
        std::vector<std::string> arguments{
            "--storage",    (scratch_.path() / "s").string(),     "--base-url", url,
            "--token-file", (scratch_.path() / "token").string(), "--user",     "alice"};
        arguments.insert(arguments.end(), command.begin(), command.end());
        const RunResult result = runTool(arguments);
        expectOneClearLine(result, 4, "cannot reach the catalogue at " + url + ": ");
        EXPECT_EQ(result.err.find("secret-token-4711"), std::string::npos) << result.err;
        EXPECT_EQ(result.out.find("secret-token-4711"), std::string::npos) << result.out;
    }
}

TEST_F(BadInputTest, CommandLineMistakesExitWithStatusTwo) {
    const std::string storage = (scratch_.path() / "s").string();
    EXPECT_EQ(runTool({}).status, 2);
    EXPECT_EQ(runTool({"--storage", storage, "download"}).status, 2);
    EXPECT_EQ(
        runTool({"--storage", storage, "--user", "a", "download", "x", "--domain", "roads"}).status,
        2);
    const RunResult noUser = runTool({"--storage", storage, "regions"});
    EXPECT_EQ(noUser.status, 2);
    EXPECT_NE(noUser.err.find("needs --user NAME"), std::string::npos) << noUser.err;
    const RunResult badUrl =
        runTool({"--storage", storage, "--base-url", "ftp://example", "--user", "a", "regions"});
    EXPECT_EQ(badUrl.status, 2);
    EXPECT_NE(badUrl.err.find("--base-url must be an http:// or https:// address"),
              std::string::npos);
    EXPECT_EQ(runTool({"--help"}).status, 0);
}

TEST_F(BadInputTest, DeletingWhatIsNotStoredSaysSoWithoutTheNetwork) {
    const RunResult result = runTool({"--storage", (scratch_.path() / "s").string(), "--base-url",
                                      "http://127.0.0.1:" + std::to_string(unusedPort()), "--user",
                                      "alice", "delete", "harbour", "--revision", "3"});
    expectOneClearLine(result, 1,
                       "nothing to delete: no stored pack of region 'harbour' revision 3");
}

}  // namespace
}  // namespace terrane::tool::test
