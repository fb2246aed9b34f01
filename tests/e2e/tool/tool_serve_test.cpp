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
    const fs::path served = www() / "offline-data" / "v1" / "u" / "packs" / "p.pack";
    const std::string data = patternBytes(1000, 9);
    writeFile(served, data);
    serve({"--port", "0", "--max-age", "120"});
    httplib::Client client(baseUrl_);
    client.set_url_encode(false);
    const std::string pack = "/offline-data/v1/u/packs/p.pack";
    const std::string tag = client.Head(pack)->get_header_value("ETag");
    EXPECT_TRUE(tag.starts_with("\"") && tag.ends_with("\"")) << tag;

    // Every answer that is not an error carries the lease and the tag.
    const std::string notFound = R"({"message":"Not found"})";
    const struct {
        std::string target;
        httplib::Headers headers;
        int status;
        std::string range;
        std::string body;
        std::string method = "GET";
    } rows[] = {
        {pack,
         {{"Range", "bytes=1-2"}, {"If-Range", tag}},
         206,
         "bytes 1-2/1000",
         data.substr(1, 2)},
        {pack, {{"Range", "bytes=-5"}}, 206, "bytes 995-999/1000", data.substr(995)},
        {pack, {{"Range", "bytes=10-"}, {"If-Range", "\"another\""}}, 200, "", data},
        {pack, {{"Range", "bytes=1000-"}}, 416, "bytes */1000", ""},
        {pack, {{"If-None-Match", tag}}, 304, "", "", "HEAD"},
        {pack + "?access_token=very-secret-token&x=1", {}, 200, "", data},
        {"/offline-data/v1/u/packs", {}, 404, "", notFound},
        {"/../../../../etc/passwd", {}, 404, "", notFound},
        {"/offline-data/%2e%2e/%2e%2e/%2e%2e/%2e%2e/%2e%2e/etc/passwd", {}, 404, "", notFound},
        {pack, {}, 405, "", R"({"message":"Method not allowed"})", "POST"},
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
                  std::tuple(row.status, row.range));
        EXPECT_TRUE(answer->body == row.body) << "not the body expected";
        if (answer->status < 400) {
            EXPECT_EQ(std::tuple(answer->get_header_value("Cache-Control"),
                                 answer->get_header_value("ETag")),
                      std::tuple("max-age=120", tag));
        }
    }

    writeFile(served, patternBytes(1000, 10));
    const auto changed = client.Head(pack, {{"If-None-Match", tag}});
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->status, 200);
    EXPECT_NE(changed->get_header_value("ETag"), tag) << "same size, new data, new tag";

    server_->signal(SIGINT);
    EXPECT_EQ(server_->wait(10s), 0) << server_->err();
    EXPECT_TRUE(server_->out().contains("Stopped after"));
    const std::string logged = readFile(accessLog());
    EXPECT_FALSE(logged.contains("very-secret-token"));
    EXPECT_FALSE(logged.contains('?')) << "the query is never logged";
}

}  // namespace
}  // namespace terrane::tool::test
