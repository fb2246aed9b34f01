// `serve` speaks the HTTP that the offline service relies on: strong entity tags, byte ranges with
// If-Range, conditional requests, the lease in Cache-Control, and a query (with the access token)
// that changes nothing and is never logged.

#include <gtest/gtest.h>
#include <signal.h>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

using namespace std::chrono_literals;

class ServeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        content_ = patternBytes(100000, 9);
        writeFile(scratch_.path() / "www" / "offline-data" / "v1" / "u" / "packs" / "p.pack",
                  content_);
        writeFile(scratch_.path() / "www" / "offline-data" / "v1" / "u" / "regions", "{}");
        server_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{toolPath(), "serve", (scratch_.path() / "www").string(),
                                     "--port", "0", "--max-age", "120", "--access-log",
                                     (scratch_.path() / "access.log").string()},
            scratch_.path() / "serve");
        ASSERT_TRUE(eventually(
            [this] { return server_->out().find("http://127.0.0.1:") != std::string::npos; }, 10s))
            << server_->err();
        const std::string out = server_->out();
        port_ = static_cast<std::uint16_t>(std::stoi(out.substr(out.find("127.0.0.1:") + 10)));
    }

    HttpAnswer get(const std::string& target, const std::vector<std::string>& headers = {}) {
        return httpRequest(port_, "GET", target, headers);
    }

    const std::string pack_ = "/offline-data/v1/u/packs/p.pack";
    ScratchDirectory scratch_;
    std::string content_;
    std::unique_ptr<ChildProcess> server_;
    std::uint16_t port_ = 0;
};

TEST_F(ServeTest, WholeFileCarriesAStrongTagTheLeaseAndItsLength) {
    const HttpAnswer answer = get(pack_);
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, content_);
    EXPECT_EQ(answer.headers.at("content-length"), "100000");
    EXPECT_EQ(answer.headers.at("cache-control"), "max-age=120");
    EXPECT_EQ(answer.headers.at("accept-ranges"), "bytes");
    const std::string etag = answer.headers.at("etag");
    EXPECT_TRUE(etag.starts_with("\"") && etag.ends_with("\"")) << etag;
    EXPECT_EQ(get(pack_).headers.at("etag"), etag) << "the tag must be stable";
}

TEST_F(ServeTest, RangesAreHonouredOnlyWhileIfRangeStillMatches) {
    const std::string etag = get(pack_).headers.at("etag");

    HttpAnswer answer = get(pack_, {"Range: bytes=99000-"});
    EXPECT_EQ(answer.status, 206);
    EXPECT_EQ(answer.headers.at("content-range"), "bytes 99000-99999/100000");
    EXPECT_EQ(answer.body, content_.substr(99000));

    answer = get(pack_, {"Range: bytes=10-19", "If-Range: " + etag});
    EXPECT_EQ(answer.status, 206);
    EXPECT_EQ(answer.body, content_.substr(10, 10));

    answer = get(pack_, {"Range: bytes=-5"});
    EXPECT_EQ(answer.body, content_.substr(99995));

    answer = get(pack_, {"Range: bytes=10-", "If-Range: \"another-version\""});
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body.size(), content_.size());

    answer = get(pack_, {"Range: bytes=100000-"});
    EXPECT_EQ(answer.status, 416);
    EXPECT_EQ(answer.headers.at("content-range"), "bytes */100000");
}

TEST_F(ServeTest, ConditionalHeadAnswersNotModifiedUntilTheFileChanges) {
    const std::string etag = get(pack_).headers.at("etag");
    HttpAnswer answer = httpRequest(port_, "HEAD", pack_, {"If-None-Match: " + etag});
    EXPECT_EQ(answer.status, 304);
    EXPECT_EQ(answer.headers.at("etag"), etag);
    EXPECT_EQ(answer.headers.at("cache-control"), "max-age=120");

    writeFile(scratch_.path() / "www" / "offline-data" / "v1" / "u" / "packs" / "p.pack",
              patternBytes(100000, 10));
    answer = httpRequest(port_, "HEAD", pack_, {"If-None-Match: " + etag});
    EXPECT_EQ(answer.status, 200);
    EXPECT_NE(answer.headers.at("etag"), etag) << "same size, new content, new tag";
    EXPECT_TRUE(answer.body.empty());
}

TEST_F(ServeTest, AccessTokenQueryIsIgnoredAndKeptOutOfTheLog) {
    const HttpAnswer answer = get(pack_ + "?access_token=very-secret-token&x=1");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, content_);
    ASSERT_TRUE(
        eventually([this] { return !readAccessLog(scratch_.path() / "access.log").empty(); }, 5s));
    const std::string log = readFile(scratch_.path() / "access.log");
    EXPECT_EQ(log.find("very-secret-token"), std::string::npos) << log;
    const auto entries = readAccessLog(scratch_.path() / "access.log");
    EXPECT_EQ(entries.back().path, pack_);
    EXPECT_EQ(entries.back().bytes, 100000u);
}

TEST_F(ServeTest, OnlyFilesBelowTheRootAreServedAndOnlyForReading) {
    EXPECT_EQ(get("/offline-data/v1/u/packs/missing").status, 404);
    EXPECT_EQ(get("/offline-data/v1/u/packs/missing").body, "{\"message\":\"Not found\"}");
    EXPECT_EQ(get("/offline-data/v1/u/packs").status, 404) << "directories are not listed";
    EXPECT_EQ(get("/../../../../etc/passwd").status, 404);
    EXPECT_EQ(get("/offline-data/%2e%2e/%2e%2e/%2e%2e/%2e%2e/%2e%2e/etc/passwd").status, 404);
    EXPECT_EQ(httpRequest(port_, "POST", pack_).status, 405);
    EXPECT_EQ(get("/offline-data/v1/u/regions").headers.at("content-type"), "application/json");
}

TEST_F(ServeTest, CtrlCStopsTheServerCleanly) {
    server_->signal(SIGINT);
    const auto status = server_->wait(10s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(*status, 0) << server_->err();
    EXPECT_NE(server_->out().find("Stopped after"), std::string::npos);
}

}  // namespace
}  // namespace terrane::tool::test
