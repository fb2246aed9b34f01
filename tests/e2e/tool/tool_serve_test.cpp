// `serve` speaks the HTTP that the offline service relies on: strong entity tags, byte ranges with
// If-Range, conditional requests, the lease in Cache-Control, and a query (with the access token)
// that changes nothing and is never logged.

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

using ToolServe = ToolTest;

TEST_F(ToolServe, AnswersRangesConditionsAndLeasesFromBelowItsRootOnly) {
    const fs::path user = www() / "offline-data" / "v1" / "u";
    const std::string content = patternBytes(100000, 9);
    writeFile(user / "packs" / "p.pack", content);
    writeFile(user / "regions", "{}");
    serve({"--port", "0", "--max-age", "120"});
    httplib::Client client(baseUrl_);
    client.set_url_encode(false);
    const std::string pack = "/offline-data/v1/u/packs/p.pack";

    const auto whole = client.Get(pack);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->get_header_value("Content-Length"), "100000");
    EXPECT_EQ(whole->get_header_value("Accept-Ranges"), "bytes");
    const std::string etag = whole->get_header_value("ETag");
    EXPECT_TRUE(etag.starts_with("\"") && etag.ends_with("\"")) << etag;
    EXPECT_EQ(client.Get("/offline-data/v1/u/regions")->get_header_value("Content-Type"),
              "application/json");

    // Every answer that is not an error carries the lease and the tag; a part is the bytes its
    // Content-Range names, a whole answer all of them.
    const struct {
        std::string method;
        std::string target;
        httplib::Headers headers;
        int status;
        std::string contentRange;
    } rows[] = {
        {"GET", pack, {}, 200, ""},
        {"GET", pack, {{"Range", "bytes=99000-"}}, 206, "bytes 99000-99999/100000"},
        {"GET", pack, {{"Range", "bytes=10-19"}, {"If-Range", etag}}, 206, "bytes 10-19/100000"},
        {"GET", pack, {{"Range", "bytes=-5"}}, 206, "bytes 99995-99999/100000"},
        {"GET", pack, {{"Range", "bytes=10-"}, {"If-Range", "\"another\""}}, 200, ""},
        {"GET", pack, {{"Range", "bytes=100000-"}}, 416, "bytes */100000"},
        {"HEAD", pack, {{"If-None-Match", etag}}, 304, ""},
        {"GET", pack + "?access_token=very-secret-token&x=1", {}, 200, ""},
        {"GET", "/offline-data/v1/u/packs/missing", {}, 404, ""},
        {"GET", "/offline-data/v1/u/packs", {}, 404, ""},
        {"GET", "/../../../../etc/passwd", {}, 404, ""},
        {"GET", "/offline-data/%2e%2e/%2e%2e/%2e%2e/%2e%2e/%2e%2e/etc/passwd", {}, 404, ""},
        {"POST", pack, {}, 405, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.method + " " + row.target);
        httplib::Request request;
        request.method = row.method;
        request.path = row.target;
        request.headers = row.headers;
        const auto answer = client.send(request);
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->status, row.status);
        EXPECT_EQ(answer->get_header_value("Content-Range"), row.contentRange);
        if (answer->status < 400) {
            EXPECT_EQ(answer->get_header_value("Cache-Control"), "max-age=120");
            EXPECT_EQ(answer->get_header_value("ETag"), etag);
        }
        std::size_t first = 0;
        std::size_t last = 0;
        if (row.status == 206) {
            std::sscanf(row.contentRange.c_str(), "bytes %zu-%zu", &first, &last);
            EXPECT_TRUE(answer->body == content.substr(first, last - first + 1));
        } else if (row.status == 200) {
            EXPECT_TRUE(answer->body == content);
        } else if (row.status == 404) {
            EXPECT_EQ(answer->body, "{\"message\":\"Not found\"}");
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
    const RunResult refused = run({"serve", www().string(), "--port", held}, {}, 10s);
    ::close(holder);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("cannot listen on 127.0.0.1:" + held), std::string::npos)
        << refused.err;

    server_->signal(SIGINT);
    EXPECT_EQ(server_->wait(10s), 0) << server_->err();
    EXPECT_NE(server_->out().find("Stopped after"), std::string::npos);
    const std::string logged = readFile(accessLog());
    EXPECT_EQ(logged.find("very-secret-token"), std::string::npos);
    EXPECT_EQ(logged.find('?'), std::string::npos) << "the query is never logged";
}

}  // namespace
}  // namespace terrane::tool::test
