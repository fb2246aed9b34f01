// `serve` speaks the HTTP that the offline service relies on: strong entity tags, byte ranges with
// If-Range, conditional requests, the lease in Cache-Control, and a query (with the access token)
// that changes nothing and is never logged.

#include <httplib.h>
#include <signal.h>

#include <tuple>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

using ToolServe = ToolTest;

TEST_F(ToolServe, AnswersRangesConditionsAndLeasesFromBelowItsRootOnly) {
    const fs::path user = www() / "offline-data" / "v1" / "u";
    const std::string content = patternBytes(100000, 9);
    writeFile(user / "packs" / "p.pack", content);
    serve({"--port", "0", "--max-age", "120"});
    httplib::Client client(baseUrl_);
    client.set_url_encode(false);
    const std::string pack = "/offline-data/v1/u/packs/p.pack";

    const std::string etag = client.Head(pack)->get_header_value("ETag");
    EXPECT_TRUE(etag.starts_with("\"") && etag.ends_with("\"")) << etag;

    // Every answer that is not an error carries the lease and the tag.
    const std::string notFound = R"({"message":"Not found"})";
    const struct {
        std::string method;
        std::string target;
        httplib::Headers headers;
        int status;
        std::string contentRange;
        std::string body;
    } rows[] = {
        {"GET",
         pack,
         {{"Range", "bytes=10-19"}, {"If-Range", etag}},
         206,
         "bytes 10-19/100000",
         content.substr(10, 10)},
        {"GET",
         pack,
         {{"Range", "bytes=-5"}},
         206,
         "bytes 99995-99999/100000",
         content.substr(99995)},
        {"GET", pack, {{"Range", "bytes=10-"}, {"If-Range", "\"another\""}}, 200, "", content},
        {"GET", pack, {{"Range", "bytes=100000-"}}, 416, "bytes */100000", ""},
        {"HEAD", pack, {{"If-None-Match", etag}}, 304, "", ""},
        {"GET", pack + "?access_token=very-secret-token&x=1", {}, 200, "", content},
        {"GET", "/offline-data/v1/u/packs", {}, 404, "", notFound},
        {"GET", "/../../../../etc/passwd", {}, 404, "", notFound},
        {"GET",
         "/offline-data/%2e%2e/%2e%2e/%2e%2e/%2e%2e/%2e%2e/etc/passwd",
         {},
         404,
         "",
         notFound},
        {"POST", pack, {}, 405, "", R"({"message":"Method not allowed"})"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.method + " " + row.target);
        httplib::Request request;
        request.method = row.method;
        request.path = row.target;
        request.headers = row.headers;
        const auto answer = client.send(request);
        ASSERT_TRUE(answer);
        EXPECT_EQ(std::tuple(answer->status, answer->get_header_value("Content-Range")),
                  std::tuple(row.status, row.contentRange));
        EXPECT_TRUE(answer->body == row.body) << "not the body expected";
        if (answer->status < 400) {
            EXPECT_EQ(std::tuple(answer->get_header_value("Cache-Control"),
                                 answer->get_header_value("ETag")),
                      std::tuple("max-age=120", etag));
        }
    }

    writeFile(user / "packs" / "p.pack", patternBytes(100000, 10));
    const auto changed = client.Head(pack, {{"If-None-Match", etag}});
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->status, 200);
    EXPECT_NE(changed->get_header_value("ETag"), etag) << "same size, new content, new tag";

    server_->signal(SIGINT);
    EXPECT_EQ(server_->wait(10s), 0) << server_->err();
    EXPECT_NE(server_->out().find("Stopped after"), std::string::npos);
    const std::string logged = readFile(accessLog());
    EXPECT_EQ(logged.find("very-secret-token"), std::string::npos);
    EXPECT_EQ(logged.find('?'), std::string::npos) << "the query is never logged";
}

}  // namespace
}  // namespace terrane::tool::test
