#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "platform/linux/curl_http_service.hpp"
#include "platform/linux/curl_test_support.hpp"
#include "platform/linux/linux_user_agent.hpp"
#include "terrane/http/request_id.hpp"
#include "testing/http_test_server.hpp"

namespace terrane::common {
namespace {

using test::HttpTestServer;
using test::ResponseInbox;

class CurlHttpServiceRequestTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!HttpTestServer::isAvailable()) {
            GTEST_SKIP() << "this build has no test HTTP server (cpp-httplib)";
        }
        server_ = std::make_unique<HttpTestServer>();
        service_ = std::make_shared<CurlHttpService>();
    }

    // Issues the request and waits for its response.
    HttpResponse fetch(HttpRequest request) {
        ResponseInbox inbox;
        service_->request(std::move(request), inbox.callback());
        return inbox.waitFor(1);
    }

    HttpResponse get(std::string_view path) { return fetch(HttpRequest(server_->url(path))); }

    std::unique_ptr<HttpTestServer> server_;
    std::shared_ptr<CurlHttpService> service_;
};

TEST_F(CurlHttpServiceRequestTest, AnswersArriveOnTheEngineThreadWithLowerCasedHeaders) {
    ResponseInbox inbox;
    const auto id = service_->request(HttpRequest(server_->url("/echo")), inbox.callback());
    const auto response = inbox.waitFor(1);
    EXPECT_NE(inbox.threads().front(), std::this_thread::get_id());
    EXPECT_GT(id, 0u);
    ASSERT_TRUE(response.result.has_value());
    EXPECT_EQ(response.result->code, 200);
    EXPECT_EQ(test::bodyText(response), "echo");
    EXPECT_EQ(response.result->headers.at("content-type"), "application/octet-stream");
    EXPECT_EQ(response.result->headers.at("etag"), "\"echo\"");
    EXPECT_EQ(response.result->headers.at("x-mixed-case"), "Value");
    EXPECT_FALSE(response.result->headers.contains("ETag"));
    EXPECT_EQ(response.request.url, server_->url("/echo"));
}

TEST_F(CurlHttpServiceRequestTest, RequestsAndDownloadsDrawConsecutiveIds) {
    ResponseInbox first;
    ResponseInbox second;
    test::StatusInbox third;
    const auto a = service_->request(HttpRequest(server_->url("/echo")), first.callback());
    const auto b = service_->request(HttpRequest(server_->url("/echo")), second.callback());
    const auto c = service_->download(
        DownloadOptions(HttpRequest(server_->url("/echo")), "/nonexistent-dir/x"),
        third.callback());
    EXPECT_EQ(b, a + 1);
    EXPECT_EQ(c, b + 1);
    first.waitFor(1);
    second.waitFor(1);
    test::waitForFinal(third);
}

TEST_F(CurlHttpServiceRequestTest, OnlyPostSendsTheBody) {
    HttpRequest post(server_->url("/echo"));
    post.method = HttpMethod::Post;
    post.body = {'a', 'b', 'c'};
    EXPECT_EQ(test::bodyText(fetch(post)), "abc");

    HttpRequest getWithBody = post;
    getWithBody.method = HttpMethod::Get;
    EXPECT_EQ(test::bodyText(fetch(getWithBody)), "echo");

    HttpRequest head = post;
    head.method = HttpMethod::Head;
    const auto response = fetch(head);
    EXPECT_EQ(response.result->code, 200);
    EXPECT_TRUE(response.result->data.empty());

    const auto received = server_->requestsFor("/echo");
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[0].method, "POST");
    EXPECT_EQ(received[0].body, "abc");
    EXPECT_EQ(received[1].method, "GET");
    EXPECT_EQ(received[1].body, "");
    EXPECT_EQ(received[2].method, "HEAD");
    // A server that ignores Expect must not cost a round of waiting.
    EXPECT_EQ(received[0].header("expect"), nullopt);
}

TEST_F(CurlHttpServiceRequestTest, CallerHeadersGoOutAsGiven) {
    HttpRequest request(server_->url("/echo"));
    request.headers = {{"X-Token", "secret"}, {"X-Other", "a, b"}};
    fetch(request);
    const auto received = server_->requestsFor("/echo").back();
    EXPECT_EQ(received.header("x-token"), "secret");
    EXPECT_EQ(received.header("x-other"), "a, b");
}

TEST_F(CurlHttpServiceRequestTest, TheGeneratedUserAgentGoesOutUnlessTheCallerSetsOne) {
    UAComponents components;
    components.appNameComponent = "Atlas";
    components.appVersionComponent = "2.1";
    HttpRequest generated(server_->url("/echo"), {}, components);
    fetch(generated);
    EXPECT_EQ(server_->requests().back().headerValues("user-agent"),
              std::vector<std::string>{linuxUserAgent(components)});

    HttpRequest own(server_->url("/echo"), {{"User-Agent", "mine/1"}}, components);
    fetch(own);
    EXPECT_EQ(server_->requests().back().headerValues("user-agent"),
              std::vector<std::string>{"mine/1"});

    HttpRequest empty(server_->url("/echo"), {{"User-Agent", ""}}, components);
    fetch(empty);
    EXPECT_EQ(server_->requests().back().headerValues("user-agent"),
              std::vector<std::string>{linuxUserAgent(components)});

    // Only the exact key suppresses the generated header.
    HttpRequest lowerCase(server_->url("/echo"), {{"user-agent", "mine/2"}}, components);
    fetch(lowerCase);
    const auto agents = server_->requests().back().headerValues("user-agent");
    EXPECT_EQ(agents.size(), 2u);
    EXPECT_NE(std::find(agents.begin(), agents.end(), "mine/2"), agents.end());
    EXPECT_NE(std::find(agents.begin(), agents.end(), linuxUserAgent(components)), agents.end());
}

TEST_F(CurlHttpServiceRequestTest, CompressedBodiesArriveDecoded) {
    EXPECT_FALSE(service_->supportsKeepCompression());
    HttpRequest gzip(server_->url("/gzip"));
    gzip.keepCompression = true;  // ignored
    EXPECT_EQ(test::bodyText(fetch(gzip)), "decoded body");
    EXPECT_EQ(test::bodyText(get("/deflate")), "decoded body");
    const auto accepted = server_->requestsFor("/gzip").back().header("accept-encoding");
    ASSERT_TRUE(accepted);
    for (const char* encoding : {"gzip", "deflate", "br"}) {
        EXPECT_NE(accepted->find(encoding), std::string::npos) << *accepted;
    }
}

TEST_F(CurlHttpServiceRequestTest, HttpErrorStatusesAreResponsesWithTheirBodies) {
    for (const int code : {401, 404, 500}) {
        const auto json = get("/status/" + std::to_string(code) + "/json");
        ASSERT_TRUE(json.result.has_value());
        EXPECT_EQ(json.result->code, code);
        EXPECT_EQ(test::bodyText(json), "{\"message\":\"status " + std::to_string(code) + "\"}");
        EXPECT_EQ(json.result->headers.at("content-type"), "application/json");

        const auto plain = get("/status/" + std::to_string(code) + "/plain");
        ASSERT_TRUE(plain.result.has_value());
        EXPECT_EQ(plain.result->code, code);
        EXPECT_EQ(test::bodyText(plain), "status " + std::to_string(code));
    }
}

TEST_F(CurlHttpServiceRequestTest, RedirectsAreFollowedUpToTen) {
    const auto ten = get("/redirect/10");
    ASSERT_TRUE(ten.result.has_value());
    EXPECT_EQ(ten.result->code, 200);
    EXPECT_EQ(test::bodyText(ten), "redirected");
    EXPECT_FALSE(ten.result->headers.contains("location"));

    const auto eleven = get("/redirect/11");
    ASSERT_FALSE(eleven.result.has_value());
    EXPECT_EQ(eleven.result.error().type, HttpRequestErrorType::OtherError);
    EXPECT_NE(eleven.result.error().message.find("redirect"), std::string::npos)
        << eleven.result.error().message;
}

TEST_F(CurlHttpServiceRequestTest, OnlyHttpAndHttpsAreFetched) {
    const auto response = fetch(HttpRequest("file:///etc/hostname"));
    ASSERT_FALSE(response.result.has_value());
    EXPECT_EQ(response.result.error().type, HttpRequestErrorType::OtherError);
}

TEST_F(CurlHttpServiceRequestTest, TransportFailuresCarryTheirKindAndCurlsText) {
    // A port that was free a moment ago: nothing listens there.
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length), 0);
    ::close(probe);
    const auto refused =
        fetch(HttpRequest("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/"));
    ASSERT_FALSE(refused.result.has_value());
    EXPECT_EQ(refused.result.error().type, HttpRequestErrorType::ConnectionError);
    EXPECT_NE(refused.result.error().message.find("127.0.0.1"), std::string::npos)
        << refused.result.error().message;

    // TLS spoken to a plain HTTP server.
    const auto tls =
        fetch(HttpRequest("https://127.0.0.1:" + std::to_string(server_->port()) + "/echo"));
    ASSERT_FALSE(tls.result.has_value());
    EXPECT_EQ(tls.result.error().type, HttpRequestErrorType::SSLError);

    const auto dropped = get("/drop-mid-body");
    ASSERT_FALSE(dropped.result.has_value());
    EXPECT_EQ(dropped.result.error().type, HttpRequestErrorType::ConnectionError);
}

TEST_F(CurlHttpServiceRequestTest, TheTimeoutLimitsTheWholeRequest) {
    HttpRequest request(server_->url("/slow-head?ms=5000"));
    request.timeout = 1;
    const auto response = fetch(request);
    ASSERT_FALSE(response.result.has_value());
    EXPECT_EQ(response.result.error().type, HttpRequestErrorType::RequestTimedOut);
}

TEST_F(CurlHttpServiceRequestTest, CancellingAnUnknownIdAnswersFalse) {
    test::AnswerInbox answers;
    service_->cancelRequest(nextHttpRequestId() + 1000, answers.callback());
    EXPECT_FALSE(answers.waitFor(1));
    EXPECT_NE(answers.threads().front(), std::this_thread::get_id());
}

TEST_F(CurlHttpServiceRequestTest, ACancelledRequestAnswersTrueThenGetsRequestCancelled) {
    ResponseInbox responses;
    const auto id = service_->request(HttpRequest(server_->url("/hold")), responses.callback());
    while (server_->heldNow() < 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::atomic<bool> answered{false};
    test::AnswerInbox answers;
    service_->cancelRequest(id, [&, inner = answers.callback()](bool answer) mutable {
        // The answer comes first, then the request's own callback.
        EXPECT_TRUE(responses.items().empty());
        answered = true;
        inner(std::move(answer));
    });
    EXPECT_TRUE(answers.waitFor(1));
    const auto response = responses.waitFor(1);
    ASSERT_FALSE(response.result.has_value());
    EXPECT_EQ(response.result.error().type, HttpRequestErrorType::RequestCancelled);

    // A finished request names nothing any more.
    service_->cancelRequest(id, answers.callback());
    EXPECT_FALSE(answers.waitFor(2));
    server_->releaseHeld();
}

TEST_F(CurlHttpServiceRequestTest, CancelFromInsideACallbackRunsBeforeItReturns) {
    ResponseInbox held;
    const auto heldId = service_->request(HttpRequest(server_->url("/hold")), held.callback());
    while (server_->heldNow() < 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ResponseInbox outer;
    bool answeredInside = false;
    bool answer = false;
    service_->request(HttpRequest(server_->url("/echo")), [&](HttpResponse&& response) {
        service_->cancelRequest(heldId, [&](bool result) {
            answeredInside = true;
            answer = result;
        });
        // Read on the engine thread right after the call: the answer must be in already.
        const bool inside = answeredInside;
        outer.callback()(std::move(response));
        EXPECT_TRUE(inside);
    });
    outer.waitFor(1);
    EXPECT_TRUE(answer);
    EXPECT_EQ(held.waitFor(1).result.error().type, HttpRequestErrorType::RequestCancelled);
    server_->releaseHeld();
}

TEST_F(CurlHttpServiceRequestTest, RequestsStartedFromACallbackRun) {
    ResponseInbox second;
    ResponseInbox first;
    service_->request(HttpRequest(server_->url("/echo")), [&](HttpResponse&& response) {
        service_->request(HttpRequest(server_->url("/status/404/plain")), second.callback());
        first.callback()(std::move(response));
    });
    EXPECT_EQ(first.waitFor(1).result->code, 200);
    EXPECT_EQ(second.waitFor(1).result->code, 404);
}

// Starts `count` requests that wait at /hold, and returns once `expected` of them are held.
void holdRequests(CurlHttpService& service, HttpTestServer& server, ResponseInbox& inbox, int count,
                  int expected) {
    for (int index = 0; index < count; ++index) {
        service.request(HttpRequest(server.url("/hold")), inbox.callback());
    }
    while (server.heldNow() < expected) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // Room for connections beyond the cap to show up, if the cap did not hold.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

TEST_F(CurlHttpServiceRequestTest, ConnectionsPerHostAreCappedAtEightByDefault) {
    ResponseInbox inbox;
    holdRequests(*service_, *server_, inbox, 10, 8);
    EXPECT_EQ(server_->heldAtMost(), 8);
    // Released batch by batch, the waiting ones go through in turn.
    while (inbox.items().size() < 10) {
        server_->releaseHeld();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

TEST_F(CurlHttpServiceRequestTest, TheCapAppliesToTransfersStartedAfterIt) {
    service_->setMaxRequestsPerHost(2);
    ResponseInbox inbox;
    holdRequests(*service_, *server_, inbox, 5, 2);
    EXPECT_EQ(server_->heldAtMost(), 2);
    while (inbox.items().size() < 5) {
        server_->releaseHeld();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    for (const auto& response : inbox.items()) {
        EXPECT_EQ(test::bodyText(response), "held");
    }
}

TEST_F(CurlHttpServiceRequestTest, ReleasingTheServiceEndsRequestsInFlightWithoutCallbacks) {
    std::atomic<int> calls{0};
    for (int index = 0; index < 3; ++index) {
        service_->request(HttpRequest(server_->url("/hold")), [&](HttpResponse&&) { ++calls; });
    }
    while (server_->heldNow() < 3) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    service_.reset();  // joins the engine thread
    EXPECT_EQ(calls, 0);
    server_->releaseHeld();
}

}  // namespace
}  // namespace terrane::common
