// `serve` speaks the HTTP that the offline service relies on: strong entity tags, byte ranges with
// If-Range, conditional requests, the lease in Cache-Control, and a query (with the access token)
// that changes nothing and is never logged.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

using namespace std::chrono_literals;

TEST(ToolServe, AnswersRangesConditionsAndLeasesFromBelowItsRootOnly) {
    ScratchDirectory scratch;
    const fs::path user = scratch.path() / "www" / "offline-data" / "v1" / "u";
    const std::string content = patternBytes(100000, 9);
    writeFile(user / "packs" / "p.pack", content);
    writeFile(user / "regions", "{}");
    const fs::path log = scratch.path() / "access.log";
    ChildProcess server({kTool, "serve", (scratch.path() / "www").string(), "--port", "0",
                         "--max-age", "120", "--access-log", log.string()},
                        scratch.path() / "serve");
    const std::uint16_t port = server.announcedPort();
    httplib::Client client("127.0.0.1", port);
    client.set_url_encode(false);
    const std::string pack = "/offline-data/v1/u/packs/p.pack";

    const auto whole = client.Get(pack);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->body, content);
    EXPECT_EQ(whole->get_header_value("Content-Length"), "100000");
    EXPECT_EQ(whole->get_header_value("Accept-Ranges"), "bytes");
    const std::string etag = whole->get_header_value("ETag");
    EXPECT_TRUE(etag.starts_with("\"") && etag.ends_with("\"")) << etag;

    const struct {
        std::string method;
        std::string target;
        httplib::Headers headers;
        int status;
        std::optional<std::string> body;
        std::string header;
        std::string value;
    } rows[] = {
        {"GET", pack, {}, 200, content, "Cache-Control", "max-age=120"},
        {"GET", pack, {}, 200, content, "ETag", etag},
        {"GET",
         pack,
         {{"Range", "bytes=99000-"}},
         206,
         content.substr(99000),
         "Content-Range",
         "bytes 99000-99999/100000"},
        {"GET",
         pack,
         {{"Range", "bytes=10-19"}, {"If-Range", etag}},
         206,
         content.substr(10, 10),
         "Content-Range",
         "bytes 10-19/100000"},
        {"GET", pack, {{"Range", "bytes=-5"}}, 206, content.substr(99995), "", ""},
        {"GET", pack, {{"Range", "bytes=10-"}, {"If-Range", "\"another\""}}, 200, content, "", ""},
        {"GET",
         pack,
         {{"Range", "bytes=100000-"}},
         416,
         std::nullopt,
         "Content-Range",
         "bytes */100000"},
        {"HEAD", pack, {{"If-None-Match", etag}}, 304, "", "Cache-Control", "max-age=120"},
        {"GET", pack + "?access_token=very-secret-token&x=1", {}, 200, content, "", ""},
        {"GET", "/offline-data/v1/u/regions", {}, 200, "{}", "Content-Type", "application/json"},
        {"GET", "/offline-data/v1/u/packs/missing", {}, 404, "{\"message\":\"Not found\"}", "", ""},
        {"GET", "/offline-data/v1/u/packs", {}, 404, std::nullopt, "", ""},
        {"GET", "/../../../../etc/passwd", {}, 404, std::nullopt, "", ""},
        {"GET",
         "/offline-data/%2e%2e/%2e%2e/%2e%2e/%2e%2e/%2e%2e/etc/passwd",
         {},
         404,
         std::nullopt,
         "",
         ""},
        {"POST", pack, {}, 405, std::nullopt, "", ""},
    };
    for (const auto& row : rows) {
        httplib::Request request;
        request.method = row.method;
        request.path = row.target;
        request.headers = row.headers;
        const auto answer = client.send(request);
        ASSERT_TRUE(answer) << row.target;
        EXPECT_EQ(answer->status, row.status) << row.method << " " << row.target;
        if (row.body) {
            EXPECT_EQ(answer->body, *row.body) << row.target;
        }
        if (!row.header.empty()) {
            EXPECT_EQ(answer->get_header_value(row.header.c_str()), row.value) << row.target;
        }
    }

    writeFile(user / "packs" / "p.pack", patternBytes(100000, 10));
    const auto changed = client.Head(pack, {{"If-None-Match", etag}});
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->status, 200);
    EXPECT_NE(changed->get_header_value("ETag"), etag) << "same size, new content, new tag";

    // A port that a listener without SO_REUSEPORT holds.
    const int holder = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(holder, reinterpret_cast<sockaddr*>(&address), length);
    ::listen(holder, 1);
    ::getsockname(holder, reinterpret_cast<sockaddr*>(&address), &length);
    const std::string held = std::to_string(ntohs(address.sin_port));
    const RunResult refused = runTool({"serve", scratch.path().string(), "--port", held}, {}, 10s);
    ::close(holder);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("cannot listen on 127.0.0.1:" + held), std::string::npos)
        << refused.err;

    server.signal(SIGINT);
    EXPECT_EQ(server.wait(10s), 0) << server.err();
    EXPECT_NE(server.out().find("Stopped after"), std::string::npos);
    EXPECT_EQ(readFile(log).find("very-secret-token"), std::string::npos);
    for (const AccessEntry& entry : readAccessLog(log)) {
        EXPECT_EQ(entry.path.find('?'), std::string::npos) << "the query is never logged";
    }
}

}  // namespace
}  // namespace terrane::tool::test
