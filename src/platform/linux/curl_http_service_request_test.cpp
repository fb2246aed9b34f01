#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <memory>
#include <thread>

#include "platform/linux/curl_http_service.hpp"
#include "platform/linux/curl_test_support.hpp"
#include "platform/linux/linux_user_agent.hpp"
#include "terrane/http/request_id.hpp"
#include "testing/http_test_server.hpp"
#include "testing/loopback.hpp"

namespace terrane::common {
namespace {

using test::HttpTestServer;
using test::ResponseInbox;
using test::TestFile;

class CurlHttpServiceRequestTest : public test::CurlServiceTest {};

TEST_F(CurlHttpServiceRequestTest, AnswersOfAnyStatusArriveDecodedWithLowerCasedHeaders) {
    EXPECT_FALSE(service_->supportsKeepCompression());
    server_.serve("/gzip",
                  TestFile{.content = test::gzipEncode("decoded body"), .contentEncoding = "gzip"});
    const struct {
        const char* path;
        int code;
        std::string body;
        HttpHeaders headers;  // among those received
    } rows[] = {
        {"/echo",
         200,
         "echo",
         {{"content-type", "application/octet-stream"},
          {"etag", "\"echo\""},
          {"x-mixed-case", "Value"}}},
        {"/status/401/json",
         401,
         R"({"message":"status 401"})",
         {{"content-type", "application/json"}}},
        {"/status/500/plain", 500, "status 500", {{"content-type", "text/plain"}}},
        {"/redirect/10", 200, "redirected", {}},  // ten redirects are followed
        {"/gzip", 200, "decoded body", {}},
    };
    std::uint64_t previous = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        HttpRequest request(server_.url(row.path));
        request.keepCompression = true;  // ignored
        ResponseInbox inbox;
        const auto id = service_->request(HttpRequest(request), inbox.callback());
        EXPECT_TRUE(previous == 0 || id == previous + 1);  // requests and downloads count on
        previous = id;
        const auto response = inbox.waitFor(1);
        EXPECT_NE(inbox.threads().front(), std::this_thread::get_id());
        EXPECT_EQ(response.request.url, request.url);
        ASSERT_TRUE(response.result.has_value());
        EXPECT_EQ(response.result->code, row.code);
        EXPECT_EQ(test::bodyText(response), row.body);
        for (const auto& [name, value] : row.headers) {
            EXPECT_EQ(response.result->headers.at(name), value);
        }
        for (const auto& [name, value] : response.result->headers) {
            EXPECT_TRUE(std::none_of(name.begin(), name.end(), ::isupper)) << name;
        }
        EXPECT_FALSE(response.result->headers.contains("location"));
    }
    test::StatusInbox statuses;
    EXPECT_EQ(service_->download(DownloadOptions(HttpRequest(server_.url("/echo")), "/no-dir/x"),
                                 statuses.callback()),
              previous + 1);
    test::waitForFinal(statuses);
}

TEST_F(CurlHttpServiceRequestTest, MethodBodyAndHeadersGoOutAsAsked) {
    UAComponents app;
    app.appNameComponent = "Atlas";
    app.appVersionComponent = "2.1";
    const std::string generated = linuxUserAgent(app);
    // Large enough that libcurl would ask the server to confirm it with Expect.
    const std::string body(2 * 1024 * 1024, 'b');
    using Values = std::vector<std::string>;
    const struct {
        HttpMethod method;
        HttpHeaders headers;
        std::string sent;
        std::string answer;  // the body that comes back
        // Only the exact key "User-Agent" suppresses the generated one, and not when empty.
        Values agents;
    } rows[] = {
        {HttpMethod::Post,
         {{"Content-Type", "application/octet-stream"}},
         "POST",
         body,
         {generated}},
        {HttpMethod::Post,
         {{"Content-Type", "application/octet-stream"}, {"X-Token", "secret"}, {"X-Other", "a, b"}},
         "POST",
         body,
         {generated}},
        {HttpMethod::Head, {{"User-Agent", "mine/1"}}, "HEAD", "", {"mine/1"}},
        {HttpMethod::Get, {{"User-Agent", ""}}, "GET", "echo", {generated}},
        {HttpMethod::Get, {{"user-agent", "mine/2"}}, "GET", "echo", {generated, "mine/2"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.sent);
        HttpRequest request(server_.url("/echo"), row.headers, app);
        request.method = row.method;
        request.body.assign(body.begin(), body.end());  // sent by POST only
        const auto response = fetch(request);
        EXPECT_EQ(response.result->code, 200);
        EXPECT_TRUE(test::bodyText(response) == row.answer);
        const auto received = server_.requests().back();
        EXPECT_EQ(received.method, row.sent);
        EXPECT_TRUE(received.body == (row.method == HttpMethod::Post ? body : ""));
        // A server that ignores Expect must not cost a round of waiting.
        EXPECT_EQ(received.header("expect"), nullopt);
        auto agents = received.headerValues("user-agent");
        std::sort(agents.begin(), agents.end());
        EXPECT_EQ(agents, row.agents);
        for (const auto& [name, value] : row.headers) {
            if (name != "User-Agent" && name != "user-agent") {
                EXPECT_EQ(received.header(name), value);
            }
        }
    }
}

TEST_F(CurlHttpServiceRequestTest, FailuresCarryTheirKindAndCurlsText) {
    server_.serve("/drop", TestFile{.content = test::testContent(64 * 1024),
                                    .dropAfter = 16 * 1024,
                                    .faultyResponses = 1 << 30});
    const std::string port = std::to_string(server_.port());
    const struct {
        std::string url;
        std::uint64_t timeout;
        HttpRequestErrorType type;
        const char* messagePart;
    } rows[] = {
        {test::loopbackUrl(test::freeLoopbackPort(), "/"), 0, HttpRequestErrorType::ConnectionError,
         "127.0.0.1"},
        {"https://127.0.0.1:" + port + "/echo", 0, HttpRequestErrorType::SSLError, ""},
        {server_.url("/drop"), 0, HttpRequestErrorType::ConnectionError, ""},
        {server_.url("/slow-head?ms=5000"), 1, HttpRequestErrorType::RequestTimedOut, ""},
        {server_.url("/redirect/11"), 0, HttpRequestErrorType::OtherError, "redirect"},
        // Only http and https are fetched.
        {"file:///etc/hostname", 0, HttpRequestErrorType::OtherError, ""},
    };
    for (const auto& row : rows) {
        HttpRequest request(row.url);
        request.timeout = row.timeout;
        const auto response = fetch(request);
        ASSERT_FALSE(response.result.has_value()) << row.url;
        EXPECT_EQ(response.result.error().type, row.type) << row.url;
        EXPECT_NE(response.result.error().message.find(row.messagePart), std::string::npos)
            << row.url << ": " << response.result.error().message;
    }
}

TEST_F(CurlHttpServiceRequestTest, ACancelFromACallbackIsAnsweredBeforeItReturns) {
    ResponseInbox held;
    const auto heldId = service_->request(HttpRequest(server_.url("/hold")), held.callback());
    while (server_.heldNow() < 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ResponseInbox outer;
    ResponseInbox started;
    bool answeredInside = false;
    bool answer = false;
    service_->request(HttpRequest(server_.url("/echo")), [&](HttpResponse&& response) {
        service_->cancelRequest(heldId, [&](bool result) {
            // The answer comes first, then the request's own callback.
            EXPECT_TRUE(held.items().empty());
            answeredInside = true;
            answer = result;
        });
        // Read on the engine thread right after the call: the answer must be in already.
        const bool inside = answeredInside;
        // A request started from a callback runs too.
        service_->request(HttpRequest(server_.url("/status/404/plain")), started.callback());
        outer.callback()(std::move(response));
        EXPECT_TRUE(inside);
    });
    outer.waitFor(1);
    EXPECT_TRUE(answer);
    EXPECT_EQ(held.waitFor(1).result.error().type, HttpRequestErrorType::RequestCancelled);
    EXPECT_EQ(started.waitFor(1).result->code, 404);

    // A finished request, like an unknown one, names nothing any more; the answer comes from the
    // engine thread.
    for (const auto id : {heldId, nextHttpRequestId() + 1000}) {
        test::AnswerInbox answers;
        service_->cancelRequest(id, answers.callback());
        EXPECT_FALSE(answers.waitFor(1));
        EXPECT_NE(answers.threads().front(), std::this_thread::get_id());
    }
    server_.release();
}

TEST_F(CurlHttpServiceRequestTest, ConnectionsPerHostAreCappedForTransfersStartedAfterwards) {
    const struct {
        optional<std::uint8_t> cap;
        int requests;
        int expected;
    } rows[] = {{nullopt, 10, 8}, {2, 5, 2}};
    for (const auto& row : rows) {
        HttpTestServer server;
        const auto service = std::make_shared<CurlHttpService>();
        if (row.cap) {
            service->setMaxRequestsPerHost(*row.cap);
        }
        ResponseInbox inbox;
        for (int index = 0; index < row.requests; ++index) {
            service->request(HttpRequest(server.url("/hold")), inbox.callback());
        }
        while (server.heldNow() < row.expected) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        // Room for connections beyond the cap to show up, if the cap did not hold.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_EQ(server.heldAtMost(), row.expected);
        // Released batch by batch, the waiting ones go through in turn.
        while (inbox.items().size() < static_cast<std::size_t>(row.requests)) {
            server.release();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        for (const auto& response : inbox.items()) {
            EXPECT_EQ(test::bodyText(response), "held");
        }
    }
}

TEST_F(CurlHttpServiceRequestTest, ReleasingTheServiceEndsRequestsInFlightWithoutCallbacks) {
    std::atomic<int> calls{0};
    for (int index = 0; index < 3; ++index) {
        service_->request(HttpRequest(server_.url("/hold")), [&](HttpResponse&&) { ++calls; });
    }
    while (server_.heldNow() < 3) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    service_.reset();  // joins the engine thread
    EXPECT_EQ(calls, 0);
    server_.release();
}

}  // namespace
}  // namespace terrane::common
