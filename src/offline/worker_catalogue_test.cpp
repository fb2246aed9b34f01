#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "offline/offline_service_worker.hpp"
#include "offline/region_catalogue.hpp"
#include "terrane/http/http_service_factory.hpp"
#include "terrane/offline/offline_service.hpp"
#include "testing/fake_http_service.hpp"
#include "testing/recording_observer.hpp"
#include "testing/storage_tree.hpp"

namespace terrane::common {
namespace {

using test::FakeHttpService;
using test::RecordingObserver;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr auto deadlockGuard = std::chrono::seconds(10);

constexpr std::string_view oneRegion = R"({
    "region-a": {
        "name": "Alpha",
        "revision": 3,
        "configuration": {"geography": null},
        "packs": [{"domain": "maps", "format": 1, "url": "terrane://offline-data/packs/a/3/maps",
                   "md5_checksum": "0123456789abcdef0123456789abcdef", "size": 2048}]
    }
})";

// Listings go through a real service (and so its worker thread) with the fake HTTP service in
// force. Each test releases its service and takes its observers and the fake out again.
class CatalogueTest : public ::testing::Test {
  protected:
    void SetUp() override { HttpServiceFactory::setUserDefined(http); }

    void TearDown() override {
        service.reset();
        for (const auto& observer : registered) {
            OfflineService::unregisterObserver(observer);
        }
        HttpServiceFactory::setUserDefined(nullptr);
    }

    void start(const OfflineServiceOptions& options) {
        service = OfflineService::getInstance(directory.path().string(), options);
    }

    std::shared_ptr<RecordingObserver> registeredRecorder() {
        auto recorder = std::make_shared<RecordingObserver>();
        registered.push_back(recorder);
        OfflineService::registerObserver(recorder);
        return recorder;
    }

    std::future<AvailableRegionsResult> list() {
        auto promise = std::make_shared<std::promise<AvailableRegionsResult>>();
        auto future = promise->get_future();
        service->listAvailableRegions([promise](AvailableRegionsResult result) {
            // Read by the test only after the future is ready, which orders the two.
            lastCallbackThread = std::this_thread::get_id();
            promise->set_value(std::move(result));
        });
        return future;
    }

    // Lists the regions, lets `reply` answer the request, and returns what the callback got.
    template <typename Reply>
    AvailableRegionsResult listAndAnswer(Reply reply) {
        auto future = list();
        reply(http->nextRequest());
        if (future.wait_for(deadlockGuard) != std::future_status::ready) {
            ADD_FAILURE() << "the listing's callback was not called";
            return unexpected(OfflineDataError{});
        }
        return future.get();
    }

    // The thread of the latest listing callback.
    static inline std::thread::id lastCallbackThread;
    std::shared_ptr<FakeHttpService> http = std::make_shared<FakeHttpService>();
    test::TemporaryDirectory directory;
    std::shared_ptr<OfflineService> service;
    std::vector<std::shared_ptr<OfflineServiceObserver>> registered;
};

TEST_F(CatalogueTest, AsksForTheUsersListingWithOnePlainGetAndHandsOverTheRegions) {
    start({"alice", "tk", "https://example.test/api"});
    auto future = list();

    const auto request = http->nextRequest();
    EXPECT_EQ(request.url(),
              "https://example.test/api/offline-data/v1/alice/regions?access_token=tk");
    EXPECT_EQ(request.method(), HttpMethod::Get);
    EXPECT_THAT(request.headers(), IsEmpty());
    EXPECT_EQ(request.request().uaComponents, UAComponents{});
    EXPECT_FALSE(request.request().keepCompression);
    request.respond(200, oneRegion);

    ASSERT_EQ(future.wait_for(deadlockGuard), std::future_status::ready);
    const auto regions = future.get();
    ASSERT_TRUE(regions.has_value()) << regions.error();
    ASSERT_EQ(regions->size(), 1u);
    EXPECT_EQ((*regions)[0].id, "region-a");
    EXPECT_EQ((*regions)[0].name, "Alpha");
    ASSERT_TRUE((*regions)[0].mapPack.has_value());
    // Pack addresses are handed over as the catalogue wrote them; downloads expand them.
    EXPECT_EQ((*regions)[0].mapPack->url, "terrane://offline-data/packs/a/3/maps");

    // Parsing and the callback run on the worker, neither on the caller's thread nor on the
    // HTTP service's.
    EXPECT_NE(lastCallbackThread, std::this_thread::get_id());
    EXPECT_NE(lastCallbackThread, http->deliveryThreadId());
}

TEST_F(CatalogueTest, UnsafeRegionIdsAreLeftOutAndNamedEscapedInTheLog) {
    auto recorder = registeredRecorder();
    start({"alice", "tk", "https://example.test"});
    const auto regions = listAndAnswer([](auto request) {
        request.respond(200, R"({"../x": {"revision": 1, "configuration": {}},
                                 "\u001b[2J\r\n": {"revision": 1, "configuration": {}},
                                 "region-a": {"revision": 3, "configuration": {}}})");
    });
    ASSERT_TRUE(regions.has_value()) << regions.error();
    ASSERT_EQ(regions->size(), 1u);
    EXPECT_EQ(regions->front().id, "region-a");
    const std::string reason = "': Region ID must be a valid directory name";
    EXPECT_EQ(recorder->count("onLogMessage Skipping offline region '../x" + reason), 1u);
    EXPECT_EQ(recorder->count("onLogMessage Skipping offline region '\\x1B[2J\\x0D\\x0A" + reason),
              1u);
}

TEST_F(CatalogueTest, ErrorStatusesReachTheCallbackAsOfflineDataErrors) {
    start({"alice", "tk", "https://example.test"});
    EXPECT_EQ(
        listAndAnswer([](auto request) { request.respond(401, R"({"message":"Invalid Token"})"); }),
        unexpected(OfflineDataError{OfflineDataErrorCode::Unauthorized, "Invalid Token"}));
    EXPECT_EQ(listAndAnswer([](auto request) { request.respond(404, "gone"); }),
              unexpected(OfflineDataError{OfflineDataErrorCode::NotFound, "gone"}));
    EXPECT_EQ(listAndAnswer([](auto request) { request.respond(429, "later"); }),
              unexpected(OfflineDataError{OfflineDataErrorCode::InvalidResponse,
                                          "Got unexpected HTTP status code 429"}));
    EXPECT_EQ(listAndAnswer([](auto request) { request.respond(200, "[]"); }),
              unexpected(OfflineDataError{OfflineDataErrorCode::InvalidResponse,
                                          "Parse error: root of document must be an object"}));
}

TEST_F(CatalogueTest, ATransportFailureIsAConnectionErrorWithItsMessage) {
    start({"alice", "tk", "https://example.test"});
    EXPECT_EQ(
        listAndAnswer([](auto request) {
            request.fail(HttpRequestErrorType::RequestTimedOut, "The request timed out.");
        }),
        unexpected(OfflineDataError{OfflineDataErrorCode::Connection, "The request timed out."}));
}

TEST_F(CatalogueTest, TheAccessTokenNeverShowsInAnyFailure) {
    const std::string token = "SECRET-TOKEN";
    auto recorder = registeredRecorder();
    start({"alice", token, "https://example.test"});

    // Every answer quotes what the server or client saw: the request URL, token included.
    const std::vector<std::function<void(const test::FakeRequest&)>> replies{
        [](auto request) {
            request.fail(HttpRequestErrorType::ConnectionError,
                         "Could not connect to " + request.url());
        },
        [](auto request) {
            request.fail(HttpRequestErrorType::SSLError, "bad certificate for " + request.url());
        },
        [&](auto request) {
            request.respond(401, R"({"message": "Unknown token )" + token + "\"}");
        },
        [&](auto request) { request.respond(401, "Unknown token " + token); },
        [&](auto request) { request.respond(403, "\xEF\xBB\xBF" + request.url()); },
        [&](auto request) { request.respond(404, "No listing at " + request.url()); },
        [&](auto request) { request.respond(500, "Crashed on " + request.url()); },
        [&](auto request) { request.respond(200, "You sent " + request.url()); },
        [&](auto request) { request.respond(204, ""); },
        [&](auto request) { request.respond(200, R"({")" + token + R"(": []})"); },
        [&](auto request) {
            request.respond(200, R"({"r": {"revision": 1, "configuration": {"geography":
                                   {"type": ")" +
                                     token + R"(", "coordinates": []}}}})");
        },
    };
    for (std::size_t i = 0; i < replies.size(); ++i) {
        const auto result = listAndAnswer(replies[i]);
        ASSERT_FALSE(result.has_value()) << "reply " << i;
        EXPECT_THAT(result.error().message, Not(HasSubstr(token))) << "reply " << i;
        EXPECT_THAT(result.error().message, Not(IsEmpty())) << "reply " << i;
    }
    for (const auto& line : recorder->lines()) {
        EXPECT_THAT(line, Not(HasSubstr(token)));
    }
}

TEST_F(CatalogueTest, TheMaskShowsWhereTheTokenWas) {
    start({"alice", "SECRET-TOKEN", "https://example.test"});
    EXPECT_EQ(listAndAnswer([](auto request) {
                  request.fail(HttpRequestErrorType::ConnectionError,
                               "Could not connect to " + request.url());
              }),
              unexpected(OfflineDataError{
                  OfflineDataErrorCode::Connection,
                  "Could not connect to "
                  "https://example.test/offline-data/v1/alice/regions?access_token=***"}));
    EXPECT_EQ(listAndAnswer([](auto request) {
                  request.respond(200, R"({"r": {"revision": 1, "configuration": {"geography":
                                  {"type": "SECRET-TOKEN", "coordinates": []}}}})");
              }),
              unexpected(OfflineDataError{
                  OfflineDataErrorCode::InvalidResponse,
                  "Region geography must be a GeoJSON feature: *** not yet implemented"}));
}

TEST_F(CatalogueTest, AnAnswerArrivingAfterTheServiceEndedIsDropped) {
    start({"alice", "tk", "https://example.test"});
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> watch = held;
    bool called = false;
    service->listAvailableRegions([held, &called](AvailableRegionsResult) { called = true; });
    held.reset();
    const auto request = http->nextRequest();

    service.reset();
    request.respond(200, oneRegion);
    http->waitUntilDelivered();

    EXPECT_FALSE(called);
    // Nothing keeps the callback (and what it holds) once the answer has been turned away.
    EXPECT_TRUE(watch.expired());
}

TEST_F(CatalogueTest, AListingWithoutCallbackAsksNothing) {
    start({"alice", "tk", "https://example.test"});
    service->listAvailableRegions({});
    auto future = list();
    http->nextRequest().respond(200, "{}");
    ASSERT_EQ(future.wait_for(deadlockGuard), std::future_status::ready);
    EXPECT_EQ(http->requests().size(), 1u);
}

// ---- The worker driven directly on the test thread -------------------------------------------

const std::filesystem::path& servicePath() {
    static test::TemporaryDirectory directory;
    return directory.path();
}

OfflineServiceWorker makeDirectWorker(const OfflineServiceOptions& options,
                                      OfflineServiceObservers observers = {}) {
    return OfflineServiceWorker(Proxy<OfflineServiceWorker>(), servicePath().string(), options,
                                std::move(observers));
}

TEST(CatalogueAddresses, TheWorkerExpandsOfflineDataAddressesOntoItsEndpoint) {
    auto worker = makeDirectWorker({"alice", "tk", "https://example.test/api/?k=1"});
    EXPECT_EQ(worker.formatURL("terrane://offline-data/packs/a/3/maps"),
              "https://example.test/api/offline-data/v1/packs/a/3/maps?k=1&access_token=tk");
    EXPECT_EQ(worker.formatURL("https://cdn.example.test/a?sig=1"),
              "https://cdn.example.test/a?sig=1");

    auto byDefault = makeDirectWorker({"alice", "tk", ""});
    EXPECT_EQ(
        byDefault.formatURL(catalogueAddress("alice")),
        std::string(defaultCatalogueEndpoint) + "/offline-data/v1/alice/regions?access_token=tk");
}

TEST(CatalogueAddresses, TheWorkerMasksItsAccessTokenButNoEmptyOne) {
    EXPECT_EQ(makeDirectWorker({"alice", "SECRET-TOKEN", nullopt})
                  .redactAccessToken("failed: access_token=SECRET-TOKEN"),
              "failed: access_token=***");
    EXPECT_EQ(makeDirectWorker({"alice", "", nullopt}).redactAccessToken("access_token=&x"),
              "access_token=&x");
}

TEST(CatalogueWithoutHttp, TheCallbackHearsAtOnceThatThereIsNoHttpService) {
    // The factory always finds a platform service where there is one, so the worker is handed
    // "none" directly.
    auto worker = makeDirectWorker({"alice", "tk", "https://example.test"});
    optional<AvailableRegionsResult> heard;
    worker.requestAvailableRegions(
        nullptr, [&](AvailableRegionsResult result) { heard = std::move(result); });
    ASSERT_TRUE(heard.has_value());
    EXPECT_EQ(*heard, unexpected(OfflineDataError{OfflineDataErrorCode::Connection,
                                                  "HTTP Service is not available"}));
}

TEST(CatalogueIdleRule, ListingTheRegionsDoesNotMakeAnIdleWorkerBusy) {
    auto http = std::make_shared<FakeHttpService>();
    HttpServiceFactory::setUserDefined(http);
    auto recorder = std::make_shared<RecordingObserver>();
    auto worker = makeDirectWorker({"alice", "tk", "https://example.test"}, {recorder});
    worker.sendIdleNotification();

    int answers = 0;
    worker.listAvailableRegions([&](AvailableRegionsResult) { ++answers; });
    const auto request = http->nextRequest();
    worker.receiveAvailableRegions({request.request(), HttpResponseData{{}, 200, {}}},
                                   [&](AvailableRegionsResult) { ++answers; });
    EXPECT_EQ(answers, 1);

    // A newcomer hears onIdle only from a worker that still counts itself idle.
    auto late = std::make_shared<RecordingObserver>();
    worker.addObserver(late);
    EXPECT_THAT(late->lines(), ElementsAre("onInitialized", "onIdle"));
    EXPECT_THAT(recorder->lines(), ElementsAre("onInitialized", "onIdle"));
    HttpServiceFactory::setUserDefined(nullptr);
}

}  // namespace
}  // namespace terrane::common
