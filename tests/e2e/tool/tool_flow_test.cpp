// The tool's main job against a real catalogue server, once with nginx and once with the tool's
// own `serve`: list, refuse a wrong token, resume after Ctrl-C and after a kill, recover from a
// corrupt pack, renew a lease at restart, and delete.

#include <gtest/gtest.h>
#include <signal.h>

#include <terrane/util/md5.hpp>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kUser = "alice";
constexpr std::int64_t kMaxAge = 10;
constexpr std::size_t kMapsSize = 3 * 1024 * 1024;

class ToolFlowTest : public ::testing::TestWithParam<bool> {
  protected:
    fs::path www() const { return scratch_.path() / "www"; }
    fs::path storage() const { return scratch_.path() / "storage"; }
    fs::path servedPack(const std::string& domain) const {
        return www() / "offline-data" / "v1" / kUser / "packs" / "harbour" / "2" /
               (domain + ".pack");
    }
    // Where the offline service keeps a pack: one tree per endpoint and user.
    fs::path storedPack(const std::string& domain) const {
        return storage() / common::util::md5String(baseUrl_ + "/" + kUser) / "harbour" / "2" /
               domain / "1";
    }

    std::vector<std::string> withGlobals(const std::vector<std::string>& words,
                                         const std::string& user = kUser) const {
        std::vector<std::string> arguments{"--storage", storage().string(), "--base-url",
                                           baseUrl_,    "--user",           user};
        arguments.insert(arguments.end(), words.begin(), words.end());
        return arguments;
    }

    RunResult tool(const std::vector<std::string>& words) { return runTool(withGlobals(words)); }

    // A member of the stored pack of `domain` as `status --json` lists it ("" when there is no
    // such pack); "error" stands for the error's code.
    std::string status(const std::string& domain, const std::string& key) {
        const RunResult result = tool({"--json", "status"});
        EXPECT_EQ(result.status, 0) << result.err;
        const auto listing = parseJson(result.out);
        for (const auto& entry : listing.GetArray()) {
            if (entry["domain"].GetString() == domain) {
                return (key == "error" ? entry["error"]["code"] : entry[key.c_str()]).GetString();
            }
        }
        return "";
    }

    std::vector<AccessEntry> requests(const std::string& domain,
                                      const std::string& method = "GET") const {
        std::vector<AccessEntry> found;
        for (const AccessEntry& entry : readAccessLog(server_->accessLog)) {
            if (entry.method == method && entry.path.ends_with("/harbour/2/" + domain + ".pack")) {
                found.push_back(entry);
            }
        }
        return found;
    }

    // A download of harbour's maps pack in the background, once a good part of it is on disk.
    std::unique_ptr<ChildProcess> startDownload(std::uint64_t bytesBeforeReturn) {
        std::vector<std::string> command = withGlobals({"download", "harbour", "--domain", "maps"});
        command.insert(command.begin(), kTool);
        auto child = std::make_unique<ChildProcess>(command, scratch_.path() / "runs");
        EXPECT_TRUE(
            eventually([&] { return largestFileBelow(storage()) >= bytesBeforeReturn; }, 60s))
            << child->out() << child->err();
        return child;
    }

    ScratchDirectory scratch_;
    std::unique_ptr<CatalogueServer> server_;
    std::string baseUrl_;
};

TEST_P(ToolFlowTest, ListsResumesRecoversRenewsAndDeletes) {
    SourcePacks sizes;
    sizes.harbourMaps = kMapsSize;
    writeSource(scratch_.path() / "source", sizes);
    publish(scratch_.path() / "source", www(), kUser);
    const ServerSettings settings{www(), scratch_.path() / "server", kMaxAge, 1024 * 1024};
    server_ = GetParam() ? startNginx(settings) : startServe(settings);
    if (!server_) {
        GTEST_SKIP() << "nginx is not installed";
    }
    baseUrl_ = server_->slowBaseUrl;

    RunResult result = tool({"--json", "regions"});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto regions = parseJson(result.out);
    ASSERT_EQ(regions.Size(), 2u);
    EXPECT_STREQ(regions[0]["id"].GetString(), "harbour");
    EXPECT_EQ(regions[0]["packs"].Size(), 2u);
    result = tool({"regions"});
    EXPECT_NE(result.out.find("harbour  revision 2  \"Harbour City\""), std::string::npos)
        << result.out;
    // Server text is shown, never obeyed by the terminal.
    EXPECT_NE(result.out.find("Plain\\x1b[2J\\r\\nforged line"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find('\x1b'), std::string::npos);

    const struct {
        std::vector<std::string> words;
        std::string says;
    } refusals[] = {
        {{"download", "plain", "--domain", "navigation"},
         "region 'plain' revision 5 has no navigation pack"},
        {{"download", "nowhere"},
         "the catalogue has no region 'nowhere' (it offers: harbour, plain)"},
        {{"download", "harbour", "--revision", "9"},
         "the catalogue offers revision 2 of region 'harbour', not revision 9"},
    };
    for (const auto& refusal : refusals) {
        result = tool(refusal.words);
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.err.find(refusal.says), std::string::npos) << result.err;
    }
    // A user the catalogue has nothing for, one whose catalogue is garbage, and (nginx plays the
    // strict server; `serve` ignores access tokens by design) one whose token is refused.
    writeFile(www() / "offline-data" / "v1" / "garbage" / "regions", "<html>");
    baseUrl_ = server_->baseUrl;
    const struct {
        std::string user;
        int status;
        std::string says;
    } users[] = {
        {"nobody", 1, "has nothing for user 'nobody': "},
        {"garbage", 1, "gave an unusable answer: "},
        {"locked", 3, "refused access for user 'locked': Invalid access token"},
    };
    for (const auto& user : users) {
        if (user.user == "locked" && !GetParam()) {
            continue;
        }
        for (const auto& words : {std::vector<std::string>{"regions"}, {"download", "harbour"}}) {
            result = runTool(withGlobals(words, user.user), {"TERRANE_ACCESS_TOKEN=wrong-0815"});
            EXPECT_EQ(result.status, user.status) << result.err;
            EXPECT_TRUE(result.err.starts_with("terrane-offline: the catalogue at " + baseUrl_ +
                                               " " + user.says))
                << result.err;
            EXPECT_EQ((result.out + result.err).find("wrong-0815"), std::string::npos);
        }
    }
    baseUrl_ = server_->slowBaseUrl;

    // Ctrl-C, then a kill: each run resumes where the one before stopped.
    auto child = startDownload(512 * 1024);
    child->signal(SIGINT);
    ASSERT_EQ(child->wait(30s), 130) << child->err();
    EXPECT_NE(child->err().find("interrupted; the downloads were cancelled"), std::string::npos)
        << child->err();
    EXPECT_EQ(status("maps", "state"), "Incomplete");
    child = startDownload(1024 * 1024 + 512 * 1024);
    child->signal(SIGKILL);
    ASSERT_EQ(child->wait(10s), -SIGKILL);

    // The navigation pack no longer matches the catalogue's checksum.
    const std::string navigation = readFile(servedPack("navigation"));
    writeFile(servedPack("navigation"), patternBytes(navigation.size(), 99));
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
    std::uint64_t furthest = 0;
    std::uint64_t lastBytes = 0;
    for (const AccessEntry& get : requests("maps")) {
        if (!get.range.empty()) {
            EXPECT_EQ(get.status, 206);
            furthest = std::max<std::uint64_t>(furthest, std::stoull(get.range.substr(6)));
            lastBytes = furthest == std::stoull(get.range.substr(6)) ? get.bytes : lastBytes;
        }
    }
    EXPECT_EQ(requests("maps").size(), 3u);
    EXPECT_GT(furthest, 512u * 1024);
    EXPECT_EQ(furthest + lastBytes, kMapsSize);
    EXPECT_EQ(common::util::md5File(storedPack("maps").string()),
              common::util::md5File(servedPack("maps").string()));
    EXPECT_EQ(status("maps", "state"), "Available");
    EXPECT_EQ(status("maps", "path"), storedPack("maps").string());
    EXPECT_EQ(status("navigation", "error"), "Corrupt");
    const std::string lease = status("maps", "lease_expires");
    EXPECT_TRUE(requests("maps", "HEAD").empty()) << "a fresh lease is not renewed";

    // A corrupt pack can be deleted, and is fetched again from the start once fixed. A trailing
    // slash names the same account.
    result = tool({"delete", "harbour", "--domain", "navigation"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("deleted navigation pack of harbour/2"), std::string::npos);
    writeFile(servedPack("navigation"), navigation);
    baseUrl_ += "/";
    result = tool({"download", "harbour"});
    baseUrl_.pop_back();
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("maps pack of harbour/2 is already available"), std::string::npos);
    EXPECT_EQ(requests("maps").size(), 3u);
    ASSERT_FALSE(requests("navigation").empty());
    EXPECT_EQ(requests("navigation").back().status, 200);
    EXPECT_EQ(requests("navigation").back().range, "");

    // Half the lease gone: the next start renews it with a conditional request.
    std::this_thread::sleep_until(downloaded + std::chrono::seconds(kMaxAge / 2) + 700ms);
    EXPECT_GT(status("maps", "lease_expires"), lease);
    const auto heads = requests("maps", "HEAD");
    ASSERT_EQ(heads.size(), 1u);
    EXPECT_FALSE(heads[0].ifNoneMatch.empty());
    EXPECT_EQ(heads[0].status, 304);

    result = tool({"delete", "harbour", "--domain", "maps"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_FALSE(fs::exists(storedPack("maps")));
    EXPECT_FALSE(fs::exists(storedPack("maps").string() + ".json"));
    EXPECT_TRUE(fs::exists(storedPack("navigation")));
    ASSERT_EQ(tool({"delete", "harbour"}).status, 0);
    EXPECT_EQ(status("navigation", "state"), "");
}

INSTANTIATE_TEST_SUITE_P(Servers, ToolFlowTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Nginx" : "Serve"; });

}  // namespace
}  // namespace terrane::tool::test
