#include "testing/fake_http_service.hpp"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace terrane::common::test {
namespace {

namespace fs = std::filesystem;

// What the callbacks of one exchange received, and on which threads, for the test to inspect.
template <typename T>
class Inbox {
  public:
    auto callback() {
        return [this](auto&& item) {
            std::lock_guard lock(mutex_);
            items_.push_back(std::forward<decltype(item)>(item));
            threads_.push_back(std::this_thread::get_id());
            arrived_.notify_all();
        };
    }

    // Waits for the count-th item ever received (1-based).
    T waitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        if (!arrived_.wait_for(lock, std::chrono::seconds(30),
                               [&] { return items_.size() >= count; })) {
            throw std::runtime_error("no callback arrived");
        }
        return items_[count - 1];
    }

    std::vector<T> items() const {
        std::lock_guard lock(mutex_);
        return items_;
    }

    std::vector<std::thread::id> threads() const {
        std::lock_guard lock(mutex_);
        return threads_;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<T> items_;
    std::vector<std::thread::id> threads_;
};

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string bodyOf(const HttpResponse& response) {
    return {response.result->data.begin(), response.result->data.end()};
}

class FakeHttpServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        directory_ = fs::path(::testing::TempDir()) /
                     ("fake_http_" + std::to_string(::getpid()) + "_" + test->name());
        fs::remove_all(directory_);
        fs::create_directories(directory_);
    }

    void TearDown() override { fs::remove_all(directory_); }

    std::uint64_t get(const std::string& url, Inbox<HttpResponse>& inbox) {
        return http_.request(HttpRequest(url), inbox.callback());
    }

    std::uint64_t download(const std::string& url, const fs::path& path,
                           Inbox<DownloadStatus>& inbox, bool resume = false) {
        return http_.download(DownloadOptions(HttpRequest(url), path.string(), resume),
                              inbox.callback());
    }

    fs::path directory_;
    FakeHttpService http_;
};

TEST_F(FakeHttpServiceTest, ARequestIsRecordedAndAnsweredOnTheDeliveryThread) {
    Inbox<HttpResponse> responses;
    HttpRequest post(HttpMethod::Post, "https://example.test/items",
                     {{"Content-Type", "text/plain"}}, false, 5, {}, {'h', 'i'});
    const auto id = http_.request(std::move(post), responses.callback());

    const auto request = http_.nextRequest();
    EXPECT_EQ(request.id(), id);
    EXPECT_EQ(request.method(), HttpMethod::Post);
    EXPECT_EQ(request.url(), "https://example.test/items");
    EXPECT_EQ(request.header("content-type"), "text/plain");
    EXPECT_EQ(request.bodyText(), "hi");
    EXPECT_EQ(request.request().timeout, 5u);
    EXPECT_FALSE(request.isAnswered());

    std::jthread([&] { request.respond(404, "gone", {{"content-type", "text/plain"}}); }).join();
    const auto response = responses.waitFor(1);
    EXPECT_EQ(response.request.url, "https://example.test/items");
    ASSERT_TRUE(response.result.has_value());
    EXPECT_EQ(response.result->code, 404);
    EXPECT_EQ(bodyOf(response), "gone");
    EXPECT_EQ(response.result->headers.at("content-type"), "text/plain");
    EXPECT_EQ(responses.threads().at(0), http_.deliveryThreadId());
    EXPECT_NE(http_.deliveryThreadId(), std::this_thread::get_id());
    EXPECT_TRUE(request.isAnswered());
}

TEST_F(FakeHttpServiceTest, ATransportFailureArrivesAsAnErrorAndOnlyOnce) {
    Inbox<HttpResponse> responses;
    get("https://example.test/a", responses);
    const auto request = http_.nextRequest();
    request.fail(HttpRequestErrorType::ConnectionError, "offline");
    EXPECT_NONFATAL_FAILURE(request.respond(200), "was already answered");
    http_.waitUntilDelivered();

    ASSERT_EQ(responses.items().size(), 1u);
    const auto response = responses.items().front();
    ASSERT_FALSE(response.result.has_value());
    EXPECT_EQ(response.result.error(),
              (HttpRequestError{HttpRequestErrorType::ConnectionError, "offline"}));
}

TEST_F(FakeHttpServiceTest, RequestsAndDownloadsDrawConsecutiveIdsFromOneCounter) {
    Inbox<HttpResponse> responses;
    Inbox<DownloadStatus> statuses;
    const auto first = get("https://example.test/1", responses);
    const auto second = get("https://example.test/2", responses);
    const auto third = download("https://example.test/3", directory_ / "3", statuses);
    EXPECT_EQ(second, first + 1);
    EXPECT_EQ(third, second + 1);
    EXPECT_EQ(http_.requestWithId(second).url(), "https://example.test/2");
    EXPECT_EQ(http_.downloadWithId(third).url(), "https://example.test/3");
    EXPECT_THROW(http_.requestWithId(third), std::out_of_range);
}

TEST_F(FakeHttpServiceTest, ADownloadReportsEveryScriptedStepInOrderAndLeavesTheFile) {
    const auto path = directory_ / "pack.tmp";
    std::ofstream(path) << "an older and longer file";
    Inbox<DownloadStatus> statuses;
    const auto id = download("https://example.test/pack", path, statuses, true);

    const auto pack = http_.nextDownload();
    EXPECT_EQ(pack.id(), id);
    EXPECT_EQ(pack.localPath(), path.string());
    EXPECT_TRUE(pack.resume());
    pack.start();
    pack.progress(4, 10);
    pack.finish("0123456789", 200, {{"etag", "\"v1\""}});

    const auto finished = statuses.waitFor(4);
    const auto all = statuses.items();
    EXPECT_EQ(all[0].state, DownloadState::Pending);
    EXPECT_EQ(all[1].state, DownloadState::Downloading);
    EXPECT_EQ(all[1].receivedBytes, 0u);
    EXPECT_EQ(all[2].state, DownloadState::Downloading);
    EXPECT_EQ(all[2].receivedBytes, 4u);
    EXPECT_EQ(all[2].totalBytes, 10u);
    for (const auto& status : all) {
        EXPECT_EQ(status.downloadId, id);
        EXPECT_EQ(status.downloadOptions, pack.options());
    }
    EXPECT_EQ(finished.state, DownloadState::Finished);
    EXPECT_EQ(finished.receivedBytes, 10u);
    EXPECT_EQ(finished.totalBytes, 10u);
    ASSERT_TRUE(finished.httpResult && finished.httpResult->has_value());
    EXPECT_EQ((*finished.httpResult)->code, 200);
    EXPECT_EQ((*finished.httpResult)->headers.at("etag"), "\"v1\"");
    EXPECT_EQ(readFile(path), "0123456789");
    for (const auto& thread : statuses.threads()) {
        EXPECT_EQ(thread, http_.deliveryThreadId());
    }

    EXPECT_TRUE(pack.isOver());
    EXPECT_NONFATAL_FAILURE(pack.progress(11), "after its final state");
    http_.waitUntilDelivered();
    EXPECT_EQ(statuses.items().size(), 4u);
}

TEST_F(FakeHttpServiceTest, AFileThatCannotBeWrittenFailsTheDownloadAsARealServiceWould) {
    const auto path = directory_ / "missing" / "pack.tmp";
    Inbox<DownloadStatus> statuses;
    download("https://example.test/pack", path, statuses);
    http_.nextDownload().finish("data");

    const auto failed = statuses.waitFor(1);
    EXPECT_EQ(failed.state, DownloadState::Failed);
    EXPECT_EQ(failed.error, (DownloadError{DownloadErrorCode::FileSystemError,
                                           path.string() + " is not writable."}));
}

TEST_F(FakeHttpServiceTest, AFailureAndARawReportArriveAsScripted) {
    Inbox<DownloadStatus> statuses;
    download("https://example.test/a", directory_ / "a", statuses);
    download("https://example.test/b", directory_ / "b", statuses);
    const auto a = http_.nextDownload();
    const auto b = http_.nextDownload();

    a.headError(HttpRequestErrorType::RequestTimedOut, "slow");
    a.fail(DownloadErrorCode::NetworkError, "lost");
    auto odd = b.status();
    odd.state = DownloadState::Finished;
    b.report(odd);

    const auto failed = statuses.waitFor(1);
    EXPECT_EQ(failed.error, (DownloadError{DownloadErrorCode::NetworkError, "lost"}));
    ASSERT_TRUE(failed.httpResult && !failed.httpResult->has_value());
    EXPECT_EQ(failed.httpResult->error().type, HttpRequestErrorType::RequestTimedOut);
    EXPECT_EQ(statuses.waitFor(2), odd);
    EXPECT_FALSE(fs::exists(directory_ / "b"));
}

TEST_F(FakeHttpServiceTest, CancellingSomethingNotInFlightAnswersFalse) {
    Inbox<bool> answers;
    Inbox<HttpResponse> responses;
    http_.cancelRequest(0xFFFFFFFF, answers.callback());
    get("https://example.test/a", responses);
    http_.nextRequest().respond(200);
    http_.cancelRequest(http_.requests().back().id(), answers.callback());

    EXPECT_FALSE(answers.waitFor(1));
    EXPECT_FALSE(answers.waitFor(2));
    ASSERT_EQ(http_.cancellations().size(), 2u);
    EXPECT_EQ(http_.cancellations()[0].id(), 0xFFFFFFFFu);
    EXPECT_TRUE(http_.cancellations()[1].isAnswered());
}

TEST_F(FakeHttpServiceTest, ACancelledRequestHearsOfItAfterTheCanceller) {
    std::mutex mutex;
    std::vector<std::string> events;
    const auto log = [&](std::string event) {
        std::lock_guard lock(mutex);
        events.push_back(std::move(event));
    };
    const auto id = http_.request(HttpRequest("https://example.test/a"), [&](HttpResponse&& r) {
        log(r.result ? "response"
                     : "error " + std::to_string(static_cast<int>(r.result.error().type)));
    });
    http_.cancelRequest(id, [&](bool answer) { log(answer ? "cancel true" : "cancel false"); });
    http_.waitUntilDelivered();

    EXPECT_EQ(events, (std::vector<std::string>{"cancel true", "error 2"}));
    EXPECT_NONFATAL_FAILURE(http_.nextRequest().respond(200), "was already answered");
}

TEST_F(FakeHttpServiceTest, AScriptedFalseLeavesTheRequestToBeAnswered) {
    Inbox<HttpResponse> responses;
    Inbox<bool> answers;
    get("https://example.test/a", responses);
    const auto request = http_.nextRequest();
    request.answerCancelWith(false);
    http_.cancelRequest(request.id(), answers.callback());
    EXPECT_FALSE(answers.waitFor(1));

    request.respond(200, "still here");
    EXPECT_EQ(bodyOf(responses.waitFor(1)), "still here");
}

TEST_F(FakeHttpServiceTest, ACancelledDownloadReportsNothingMore) {
    Inbox<DownloadStatus> statuses;
    Inbox<bool> answers;
    download("https://example.test/pack", directory_ / "pack", statuses);
    const auto pack = http_.nextDownload();
    pack.start();
    http_.answerCancellationsWith(false);
    http_.cancelRequest(pack.id(), answers.callback());
    http_.cancelRequest(pack.id(), answers.callback());

    // Crossing the cancellation is not a scripting error; it is just never delivered.
    pack.progress(5);
    pack.finish("data");
    http_.waitUntilDelivered();
    EXPECT_EQ(statuses.items().size(), 2u);
    EXPECT_TRUE(pack.isCancelled());
    EXPECT_FALSE(pack.isOver());
    EXPECT_FALSE(fs::exists(directory_ / "pack"));
    EXPECT_EQ(answers.items(), (std::vector<bool>{false, false}));
}

TEST_F(FakeHttpServiceTest, ManualCancellationsWaitForTheTestsAnswer) {
    Inbox<HttpResponse> responses;
    Inbox<bool> answers;
    http_.answerCancellationsManually();
    get("https://example.test/a", responses);
    const auto request = http_.nextRequest();
    std::jthread([&] { http_.cancelRequest(request.id(), answers.callback()); }).join();

    const auto cancellation = http_.nextCancellation();
    EXPECT_EQ(cancellation.id(), request.id());
    http_.waitUntilDelivered();
    EXPECT_FALSE(cancellation.isAnswered());
    EXPECT_TRUE(answers.items().empty());

    cancellation.answer(true);
    EXPECT_TRUE(answers.waitFor(1));
    EXPECT_EQ(responses.waitFor(1).result.error().type, HttpRequestErrorType::RequestCancelled);
    EXPECT_NONFATAL_FAILURE(cancellation.answer(false), "already answered");
}

TEST_F(FakeHttpServiceTest, CallbacksMayCallBackIntoTheFake) {
    Inbox<bool> answers;
    Inbox<std::string> failures;
    std::uint64_t id = 0;
    id = http_.request(HttpRequest("https://example.test/a"), [&](HttpResponse&&) {
        // Already answered, so there is nothing left to cancel.
        http_.cancelRequest(id, answers.callback());
        try {
            http_.nextRequest();
        } catch (const std::logic_error& e) {
            failures.callback()(std::string(e.what()));
        }
    });
    http_.requestWithId(id).respond(404);
    EXPECT_FALSE(answers.waitFor(1));
    EXPECT_NE(failures.waitFor(1).find("inside one of its own callbacks"), std::string::npos);
}

TEST_F(FakeHttpServiceTest, FaultSwitchesAnswerWithoutTheTest) {
    Inbox<HttpResponse> responses;
    Inbox<DownloadStatus> statuses;
    http_.failEveryRequest(HttpRequestErrorType::SSLError, "bad certificate");
    http_.respondToUrlsStartingWith("https://example.test/", 200, "canned");
    http_.failEveryDownload(DownloadErrorCode::NetworkError, "no route");
    get("https://example.test/a", responses);
    download("https://example.test/b", directory_ / "b", statuses);

    EXPECT_EQ(responses.waitFor(1).result.error(),
              (HttpRequestError{HttpRequestErrorType::SSLError, "bad certificate"}));
    EXPECT_EQ(statuses.waitFor(1).state, DownloadState::Pending);
    EXPECT_EQ(statuses.waitFor(2).error,
              (DownloadError{DownloadErrorCode::NetworkError, "no route"}));
    EXPECT_TRUE(http_.requests().at(0).isAnswered());
    EXPECT_TRUE(http_.downloads().at(0).isOver());

    http_.clearAutomaticAnswers();
    get("https://example.test/c", responses);
    EXPECT_EQ(http_.nextRequest().url(), "https://example.test/c");
}

TEST_F(FakeHttpServiceTest, CannedAnswersServeMatchingUrlsAndLeaveTheRestToTheTest) {
    Inbox<HttpResponse> responses;
    Inbox<DownloadStatus> statuses;
    http_.respondToUrlsStartingWith("https://api.test/", 200, "{}", {{"etag", "e"}});
    http_.serveDownloadsStartingWith("https://packs.test/", "pack bytes", 206,
                                     {{"cache-control", "max-age=60"}});
    get("https://api.test/regions", responses);
    get("https://other.test/x", responses);
    download("https://packs.test/1", directory_ / "1", statuses);

    EXPECT_EQ(bodyOf(responses.waitFor(1)), "{}");
    EXPECT_EQ(http_.nextRequest().url(), "https://other.test/x");

    const auto finished = statuses.waitFor(3);
    EXPECT_EQ(statuses.items()[0].state, DownloadState::Pending);
    EXPECT_EQ(statuses.items()[1].state, DownloadState::Downloading);
    EXPECT_EQ(finished.state, DownloadState::Finished);
    EXPECT_EQ(finished.receivedBytes, 10u);
    EXPECT_EQ((*finished.httpResult)->code, 206);
    EXPECT_EQ((*finished.httpResult)->headers.at("cache-control"), "max-age=60");
    EXPECT_EQ(readFile(directory_ / "1"), "pack bytes");
}

TEST_F(FakeHttpServiceTest, WaitingFollowsCallsFromOtherThreadsAndGivesUpAfterTheGuard) {
    Inbox<HttpResponse> responses;
    std::jthread caller([&] { get("https://example.test/late", responses); });
    EXPECT_EQ(http_.nextRequest().url(), "https://example.test/late");

    http_.setGuardTimeout(std::chrono::milliseconds(20));
    EXPECT_THROW(http_.nextRequest(), std::runtime_error);
    EXPECT_THROW(http_.nextDownload(), std::runtime_error);
    EXPECT_THROW(http_.nextCancellation(), std::runtime_error);
}

TEST_F(FakeHttpServiceTest, ACallbackThatThrowsFailsTheTestInsteadOfTheProcess) {
    http_.request(HttpRequest("https://example.test/a"),
                  [](HttpResponse&&) { throw std::runtime_error("boom"); });
    EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(
        {
            http_.nextRequest().respond(200);
            http_.waitUntilDelivered();
        },
        "boom");
}

TEST(FakeHttpServiceLifetimeTest, DestructionDeliversTheAnswersGivenAndJoins) {
    Inbox<HttpResponse> responses;
    {
        FakeHttpService http;
        for (int i = 0; i < 3; ++i) {
            http.request(HttpRequest("https://example.test/" + std::to_string(i)),
                         responses.callback());
        }
        http.nextRequest().respond(200);
        http.nextRequest().respond(201);
        // The third is never answered: it ends without a callback.
    }
    ASSERT_EQ(responses.items().size(), 2u);
    EXPECT_EQ(responses.items()[1].result->code, 201);
}

TEST(FakeHttpServiceLifetimeTest, AHandleOutlivingTheFakeDropsItsAnswerAndFreesTheCallback) {
    auto token = std::make_shared<int>(0);
    bool called = false;
    optional<FakeRequest> request;
    {
        FakeHttpService http;
        http.request(HttpRequest("https://example.test/a"),
                     [token, &called](HttpResponse&&) { called = true; });
        request = http.nextRequest();
    }
    request->respond(200);
    EXPECT_FALSE(called);
    EXPECT_GT(token.use_count(), 1);
    request.reset();
    EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
}  // namespace terrane::common::test
