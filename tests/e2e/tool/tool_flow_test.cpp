// The tool's main job against a real catalogue server, once with nginx and once with the tool's
// own `serve`: list, download with verification, resume after a kill or Ctrl-C, recover from a
// corrupt pack, renew a lease at restart, and delete.

#include <gtest/gtest.h>
#include <signal.h>

#include <terrane/util/md5.hpp>
#include <thread>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

using namespace std::chrono_literals;
using feature::value;

enum class ServerKind { Serve, Nginx };

constexpr const char* kUser = "alice";

// The flows, written once; each runs against both servers (see FLOW_TEST below).
class ToolFlowTest : public ::testing::Test {
  protected:
    explicit ToolFlowTest(ServerKind kind) : kind_(kind) {}

    void listsDownloadsShowsAndDeletesARegion();
    void alteredPackEndsCorruptAndDownloadsCleanlyOnceFixed();
    void refusedCatalogueGivesAClearErrorAndStatusThree();
    void restartAfterHalfTheLeaseRenewsItWithAConditionalRequest();
    void killedDownloadResumesAndFetchesOnlyTheRest();
    void ctrlCCancelsWithStatus130AndTheSameCommandResumes();

    // Publishes the sample source and starts the server; call once per test.
    void start(const SourcePacks& sizes = {}, std::int64_t maxAge = 3600) {
        sizes_ = sizes;
        writeSource(scratch_.path() / "source", sizes);
        publish(scratch_.path() / "source", www(), kUser);
        ServerSettings settings{www(), scratch_.path() / "server", maxAge, 1024 * 1024};
        if (kind_ == ServerKind::Nginx) {
            if (!nginxInstalled()) {
                GTEST_SKIP() << "nginx is not installed";
            }
            server_ = startNginx(settings);
        } else {
            server_ = startServe(settings);
        }
        baseUrl_ = server_->baseUrl();
    }

    fs::path www() const { return scratch_.path() / "www"; }
    fs::path storage() const { return scratch_.path() / "storage"; }
    fs::path servedPack(const std::string& region, int revision, const std::string& domain) const {
        return www() / "offline-data" / "v1" / kUser / "packs" / region / std::to_string(revision) /
               (domain + ".pack");
    }
    // Where the offline service keeps a pack: one tree per endpoint and user.
    fs::path storedPack(const std::string& region, int revision, const std::string& domain) const {
        return storage() / common::util::md5String(baseUrl_ + "/" + kUser) / region /
               std::to_string(revision) / domain / "1";
    }

    std::vector<std::string> withGlobals(const std::vector<std::string>& command) const {
        std::vector<std::string> arguments{"--storage", storage().string(), "--base-url",
                                           baseUrl_,    "--user",           kUser};
        arguments.insert(arguments.end(), command.begin(), command.end());
        return arguments;
    }

    RunResult tool(const std::vector<std::string>& command) {
        return runTool(withGlobals(command));
    }

    // The status listing as JSON entries.
    std::vector<value> status() {
        const RunResult result = tool({"--json", "status"});
        EXPECT_EQ(result.status, 0) << result.err;
        return parseJson(result.out).get<value::array_type>();
    }

    static const value* entryFor(const std::vector<value>& entries, const std::string& region,
                                 const std::string& domain) {
        for (const value& entry : entries) {
            if (text(at(entry, "region")) == region && text(at(entry, "domain")) == domain) {
                return &entry;
            }
        }
        return nullptr;
    }

    std::vector<AccessEntry> packRequests(const std::string& region, const std::string& domain,
                                          const std::string& method = "GET") const {
        std::vector<AccessEntry> found;
        const std::string suffix = "/packs/" + region + "/2/" + domain + ".pack";
        for (const AccessEntry& entry : server_->accessLog()) {
            if (entry.method == method && entry.path.ends_with(suffix)) {
                found.push_back(entry);
            }
        }
        return found;
    }

    void expectStoredPackMatchesServed(const std::string& region, const std::string& domain) {
        const fs::path stored = storedPack(region, 2, domain);
        ASSERT_TRUE(fs::exists(stored)) << stored;
        EXPECT_EQ(common::util::md5File(stored.string()),
                  common::util::md5File(servedPack(region, 2, domain).string()));
    }

    // Starts a paced download of harbour's maps pack in the background and waits until a good
    // part of it is on disk.
    std::unique_ptr<ChildProcess> startSlowDownload(std::uint64_t bytesBeforeReturn) {
        baseUrl_ = server_->slowBaseUrl();
        std::vector<std::string> command{toolPath()};
        for (const std::string& argument :
             withGlobals({"download", "harbour", "--domain", "maps"})) {
            command.push_back(argument);
        }
        auto child = std::make_unique<ChildProcess>(command, scratch_.path() / "slow-run");
        EXPECT_TRUE(
            eventually([&] { return largestFileBelow(storage()) >= bytesBeforeReturn; }, 60s))
            << child->out() << child->err();
        return child;
    }

    // The request that resumed: a 206 answer to "Range: bytes=N-" that sent only the rest.
    void expectResumedDownload(std::size_t size) {
        const auto requests = packRequests("harbour", "maps");
        ASSERT_GE(requests.size(), 2u);
        const AccessEntry* resumed = nullptr;
        for (const AccessEntry& entry : requests) {
            if (entry.status == 206) {
                resumed = &entry;
            }
        }
        ASSERT_NE(resumed, nullptr) << "no 206 answer among " << requests.size() << " requests";
        ASSERT_TRUE(resumed->range.starts_with("bytes=")) << resumed->range;
        const std::uint64_t offset = std::stoull(resumed->range.substr(6));
        EXPECT_GT(offset, 0u);
        EXPECT_LT(resumed->bytes, size) << "the second run fetched fewer bytes than the whole pack";
        EXPECT_EQ(offset + resumed->bytes, size);
        expectStoredPackMatchesServed("harbour", "maps");
    }

    ServerKind kind_;
    ScratchDirectory scratch_;
    SourcePacks sizes_;
    std::unique_ptr<CatalogueServer> server_;
    std::string baseUrl_;
};

void ToolFlowTest::listsDownloadsShowsAndDeletesARegion() {
    start();
    if (IsSkipped()) {
        return;
    }
    RunResult result = tool({"--json", "regions"});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto regions = parseJson(result.out).get<value::array_type>();
    ASSERT_EQ(regions.size(), 2u);
    EXPECT_EQ(text(at(regions[0], "id")), "harbour");
    EXPECT_EQ(number(at(regions[0], "revision")), 2u);
    EXPECT_EQ(at(regions[0], "packs").get<value::array_type>().size(), 2u);
    EXPECT_EQ(text(at(regions[1], "id")), "plain");
    result = tool({"regions"});
    EXPECT_NE(result.out.find("harbour  revision 2  \"Harbour City\""), std::string::npos)
        << result.out;
    // Server text is shown, never obeyed by the terminal.
    EXPECT_NE(result.out.find("Plain\\x1b[2J\\r\\nforged line"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find('\x1b'), std::string::npos);

    result = tool({"download", "harbour"});
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("maps pack of harbour/2 is available"), std::string::npos);
    EXPECT_NE(result.out.find("navigation pack of harbour/2 is available"), std::string::npos);
    expectStoredPackMatchesServed("harbour", "maps");
    expectStoredPackMatchesServed("harbour", "navigation");
    EXPECT_TRUE(fs::exists(storedPack("harbour", 2, "maps").string() + ".json"));

    auto entries = status();
    ASSERT_EQ(entries.size(), 2u);
    for (const char* domain : {"maps", "navigation"}) {
        const value* entry = entryFor(entries, "harbour", domain);
        ASSERT_NE(entry, nullptr) << domain;
        EXPECT_EQ(text(at(*entry, "state")), "Available");
        EXPECT_EQ(text(at(*entry, "path")), storedPack("harbour", 2, domain).string());
        EXPECT_TRUE(at(*entry, "lease_expires").is<std::string>());
    }

    // A trailing slash names the same account.
    const std::size_t getsBefore = packRequests("harbour", "maps").size();
    baseUrl_ += "/";
    result = tool({"download", "harbour", "--domain", "maps"});
    baseUrl_.pop_back();
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find("already available"), std::string::npos) << result.out;
    EXPECT_EQ(packRequests("harbour", "maps").size(), getsBefore);

    result = tool({"delete", "harbour", "--domain", "maps"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("deleted maps pack of harbour/2"), std::string::npos);
    EXPECT_FALSE(fs::exists(storedPack("harbour", 2, "maps")));
    EXPECT_FALSE(fs::exists(storedPack("harbour", 2, "maps").string() + ".json"));
    EXPECT_TRUE(fs::exists(storedPack("harbour", 2, "navigation")));

    result = tool({"delete", "harbour"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_FALSE(fs::exists(storedPack("harbour", 2, "navigation")));
    EXPECT_TRUE(status().empty());

    result = tool({"download", "plain", "--domain", "navigation"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("region 'plain' revision 5 has no navigation pack"),
              std::string::npos);
    result = tool({"download", "nowhere"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("the catalogue has no region 'nowhere' (it offers: harbour, plain)"),
              std::string::npos)
        << result.err;
}

void ToolFlowTest::alteredPackEndsCorruptAndDownloadsCleanlyOnceFixed() {
    start();
    if (IsSkipped()) {
        return;
    }
    const fs::path served = servedPack("harbour", 2, "maps");
    const std::string original = readFile(served);
    std::string altered = original;
    altered[altered.size() / 2] = static_cast<char>(altered[altered.size() / 2] ^ 0x5a);
    writeFile(served, altered);

    RunResult result = tool({"download", "harbour", "--domain", "maps"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find("maps pack of harbour/2 failed: Corrupt: Failed to verify checksum"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.err.find("1 of 1 packs did not become available"), std::string::npos);

    const auto entries = status();
    const value* entry = entryFor(entries, "harbour", "maps");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(text(at(*entry, "state")), "Errored");
    EXPECT_EQ(text(at(at(*entry, "error"), "code")), "Corrupt");
    result = tool({"delete", "harbour", "--domain", "maps"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("deleted maps pack of harbour/2"), std::string::npos) << result.out;

    writeFile(served, original);
    result = tool({"download", "harbour", "--domain", "maps"});
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    expectStoredPackMatchesServed("harbour", "maps");
    const auto requests = packRequests("harbour", "maps");
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests.back().status, 200);
    EXPECT_EQ(requests.back().range, "") << "a corrupt file is fetched again from the start";
}

void ToolFlowTest::refusedCatalogueGivesAClearErrorAndStatusThree() {
    if (kind_ == ServerKind::Serve) {
        GTEST_SKIP() << "serve ignores access tokens by design; nginx plays the strict server";
    }
    start();
    if (IsSkipped()) {
        return;
    }
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"regions"}, std::vector<std::string>{"download", "harbour"}}) {
        std::vector<std::string> arguments{"--storage", storage().string(), "--base-url",
                                           baseUrl_,    "--user",           "locked"};
        arguments.insert(arguments.end(), command.begin(), command.end());
        const RunResult result = runTool(arguments, {"TERRANE_ACCESS_TOKEN=wrong-token-0815"});
        EXPECT_EQ(result.status, 3);
        const auto lines = result.errLines();
        ASSERT_EQ(lines.size(), 1u) << result.err;
        EXPECT_EQ(lines[0], "terrane-offline: the catalogue at " + baseUrl_ +
                                " refused access for user 'locked': Invalid access token");
        EXPECT_EQ(result.err.find("wrong-token-0815"), std::string::npos);
        EXPECT_EQ(result.out.find("wrong-token-0815"), std::string::npos);
    }
}

void ToolFlowTest::restartAfterHalfTheLeaseRenewsItWithAConditionalRequest() {
    constexpr std::int64_t kMaxAge = 8;
    start({}, kMaxAge);
    if (IsSkipped()) {
        return;
    }
    ASSERT_EQ(tool({"download", "harbour", "--domain", "maps"}).status, 0);
    const auto downloaded = std::chrono::steady_clock::now();
    auto entries = status();
    ASSERT_NE(entryFor(entries, "harbour", "maps"), nullptr);
    const std::string firstLease = text(at(*entryFor(entries, "harbour", "maps"), "lease_expires"));
    EXPECT_TRUE(packRequests("harbour", "maps", "HEAD").empty()) << "a fresh lease is not renewed";

    std::this_thread::sleep_until(downloaded + std::chrono::seconds(kMaxAge / 2) + 700ms);
    entries = status();
    const value* entry = entryFor(entries, "harbour", "maps");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(text(at(*entry, "state")), "Available");
    EXPECT_GT(text(at(*entry, "lease_expires")), firstLease);

    const auto heads = packRequests("harbour", "maps", "HEAD");
    ASSERT_EQ(heads.size(), 1u);
    EXPECT_FALSE(heads[0].ifNoneMatch.empty()) << "the renewal is conditional";
    EXPECT_EQ(heads[0].status, 304);
    EXPECT_TRUE(fs::exists(storedPack("harbour", 2, "maps")));
}

void ToolFlowTest::killedDownloadResumesAndFetchesOnlyTheRest() {
    SourcePacks sizes;
    sizes.harbourMaps = 3 * 1024 * 1024;
    start(sizes);
    if (IsSkipped()) {
        return;
    }
    auto child = startSlowDownload(1024 * 1024);
    child->signal(SIGKILL);
    ASSERT_EQ(child->wait(10s), -SIGKILL);

    const RunResult result = tool({"download", "harbour", "--domain", "maps"});
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    expectResumedDownload(sizes.harbourMaps);
}

void ToolFlowTest::ctrlCCancelsWithStatus130AndTheSameCommandResumes() {
    SourcePacks sizes;
    sizes.harbourMaps = 3 * 1024 * 1024;
    start(sizes);
    if (IsSkipped()) {
        return;
    }
    auto child = startSlowDownload(512 * 1024);
    child->signal(SIGINT);
    ASSERT_EQ(child->wait(30s), 130) << child->err();
    EXPECT_NE(child->err().find("interrupted; the downloads were cancelled"), std::string::npos)
        << child->err();

    auto entries = status();
    const value* entry = entryFor(entries, "harbour", "maps");
    if (entry != nullptr) {
        EXPECT_EQ(text(at(*entry, "state")), "Incomplete");
    }
    const RunResult result = tool({"download", "harbour", "--domain", "maps"});
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    expectResumedDownload(sizes.harbourMaps);
}

class ServeFlowTest : public ToolFlowTest {
  protected:
    ServeFlowTest() : ToolFlowTest(ServerKind::Serve) {}
};

class NginxFlowTest : public ToolFlowTest {
  protected:
    NginxFlowTest() : ToolFlowTest(ServerKind::Nginx) {}
};

// Plain fixtures rather than value parameters, so that every test has a plain name in ctest.
#define FLOW_TEST(Name, method)   \
    TEST_F(ServeFlowTest, Name) { \
        method();                 \
    }                             \
    TEST_F(NginxFlowTest, Name) { \
        method();                 \
    }

FLOW_TEST(ListsDownloadsShowsAndDeletesARegion, listsDownloadsShowsAndDeletesARegion)
FLOW_TEST(AlteredPackEndsCorruptAndDownloadsCleanlyOnceFixed,
          alteredPackEndsCorruptAndDownloadsCleanlyOnceFixed)
FLOW_TEST(RefusedCatalogueGivesAClearErrorAndStatusThree,
          refusedCatalogueGivesAClearErrorAndStatusThree)
FLOW_TEST(RestartAfterHalfTheLeaseRenewsItWithAConditionalRequest,
          restartAfterHalfTheLeaseRenewsItWithAConditionalRequest)
FLOW_TEST(KilledDownloadResumesAndFetchesOnlyTheRest, killedDownloadResumesAndFetchesOnlyTheRest)
FLOW_TEST(CtrlCCancelsWithStatus130AndTheSameCommandResumes,
          ctrlCCancelsWithStatus130AndTheSameCommandResumes)

}  // namespace
}  // namespace terrane::tool::test
