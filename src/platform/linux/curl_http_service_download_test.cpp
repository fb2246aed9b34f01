#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <thread>

#include "platform/linux/curl_http_service.hpp"
#include "platform/linux/curl_test_support.hpp"
#include "platform/linux/download_transfer.hpp"
#include "platform/linux/resume_data.hpp"
#include "terrane/http/request_id.hpp"
#include "terrane/util/md5.hpp"
#include "testing/http_test_server.hpp"
#include "util/digest_cache.hpp"

namespace terrane::common {
namespace {

namespace fs = std::filesystem;
using test::HttpTestServer;
using test::ReceivedRequest;
using test::StatusInbox;
using test::TestFile;

std::vector<DownloadState> statesOf(const std::vector<DownloadStatus>& statuses) {
    std::vector<DownloadState> states;
    for (const auto& status : statuses) {
        states.push_back(status.state);
    }
    return states;
}

class CurlHttpServiceDownloadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!HttpTestServer::isAvailable()) {
            GTEST_SKIP() << "this build has no test HTTP server (cpp-httplib)";
        }
        server_ = std::make_unique<HttpTestServer>();
        scratch_ = std::make_unique<test::ScratchDirectory>();
        service_ = std::make_shared<CurlHttpService>();
        destination_ = scratch_->file("pack.zip");
    }

    std::uint64_t start(const std::string& path, StatusInbox& inbox, bool resume = false,
                        std::uint64_t timeout = 0) {
        HttpRequest request(server_->url(path));
        request.timeout = timeout;
        return service_->download(DownloadOptions(request, destination_, resume), inbox.callback());
    }

    DownloadStatus download(const std::string& path, bool resume = false,
                            std::uint64_t timeout = 0) {
        StatusInbox inbox;
        start(path, inbox, resume, timeout);
        return test::waitForFinal(inbox);
    }

    // Waits until the download has reported at least `bytes` received.
    static void waitForBytes(StatusInbox& inbox, std::uint64_t bytes) {
        inbox.waitUntil([bytes](const std::vector<DownloadStatus>& statuses) {
            return !statuses.empty() && statuses.back().receivedBytes >= bytes;
        });
    }

    // Cancels and returns the answer.
    bool cancel(std::uint64_t id) {
        test::AnswerInbox answers;
        service_->cancelRequest(id, answers.callback());
        return answers.waitFor(1);
    }

    // Stops the engine, so that no callback can arrive any more.
    void stopService() { service_.reset(); }

    // What the digest cache holds for the destination as it is now: the digest taken while the
    // bytes were written, which md5File answers with instead of reading the file.
    optional<std::string> cachedDigest() const {
        struct stat status {};
        if (::stat(destination_.c_str(), &status) != 0) {
            return nullopt;
        }
        return util::DigestCache::instance().find(util::FileIdentity::of(status));
    }

    std::string rd() const { return resumeDataPathFor(destination_); }
    std::string part() const { return partialFilePathFor(destination_); }

    std::unique_ptr<HttpTestServer> server_;
    std::unique_ptr<test::ScratchDirectory> scratch_;
    std::shared_ptr<CurlHttpService> service_;
    std::string destination_;
};

TEST_F(CurlHttpServiceDownloadTest, AFreshDownloadReportsPendingDownloadingThenFinished) {
    const std::string content = test::testContent(3 * 1024 * 1024);
    TestFile file;
    file.content = content;
    file.cacheControl = "max-age=3600";
    server_->serve("/pack", file);

    StatusInbox inbox;
    const auto id = start("/pack", inbox);
    const auto final = test::waitForFinal(inbox);
    stopService();

    const auto statuses = inbox.items();
    ASSERT_GE(statuses.size(), 3u);
    EXPECT_EQ(statuses[0].state, DownloadState::Pending);
    EXPECT_EQ(statuses[0].receivedBytes, 0u);
    EXPECT_EQ(statuses[1].state, DownloadState::Downloading);
    EXPECT_EQ(statuses[1].receivedBytes, 0u);
    for (std::size_t index = 1; index + 1 < statuses.size(); ++index) {
        EXPECT_EQ(statuses[index].state, DownloadState::Downloading);
    }
    EXPECT_EQ(final.state, DownloadState::Finished);
    EXPECT_EQ(final.downloadId, id);
    EXPECT_EQ(final.error, nullopt);
    EXPECT_EQ(final.receivedBytes, content.size());
    EXPECT_EQ(final.totalBytes, final.receivedBytes);
    EXPECT_EQ(final.downloadOptions.localPath, destination_);
    EXPECT_EQ(final.downloadOptions.request.url, server_->url("/pack"));
    ASSERT_TRUE(final.httpResult && final.httpResult->has_value());
    EXPECT_EQ((*final.httpResult)->code, 200);
    EXPECT_EQ((*final.httpResult)->headers.at("etag"), "\"v1\"");
    EXPECT_EQ((*final.httpResult)->headers.at("cache-control"), "max-age=3600");
    EXPECT_TRUE((*final.httpResult)->data.empty());
    for (const auto thread : inbox.threads()) {
        EXPECT_NE(thread, std::this_thread::get_id());
    }

    EXPECT_EQ(test::readWholeFile(destination_), content);
    EXPECT_EQ(cachedDigest(), util::md5String(content));
    EXPECT_FALSE(fs::exists(part()));
    EXPECT_FALSE(fs::exists(rd()));
}

TEST_F(CurlHttpServiceDownloadTest, AnExistingDestinationIsReplaced) {
    test::writeWholeFile(destination_, "old contents");
    server_->serve("/pack", TestFile{.content = "new"});
    EXPECT_EQ(download("/pack").state, DownloadState::Finished);
    EXPECT_EQ(test::readWholeFile(destination_), "new");
}

TEST_F(CurlHttpServiceDownloadTest, AMissingDirectoryFailsAfterPendingAndNothingElse) {
    destination_ = scratch_->file("missing/pack.zip");
    StatusInbox inbox;
    start("/echo", inbox);
    const auto final = test::waitForFinal(inbox);
    stopService();
    EXPECT_EQ(statesOf(inbox.items()),
              (std::vector{DownloadState::Pending, DownloadState::Failed}));
    EXPECT_EQ(final.error, (DownloadError{DownloadErrorCode::FileSystemError,
                                          destination_ + " is not writable."}));
    EXPECT_TRUE(server_->requestsFor("/echo").empty());
}

TEST_F(CurlHttpServiceDownloadTest, ADestinationBesideAFileInsteadOfADirectoryIsNotWritable) {
    test::writeWholeFile(scratch_->file("plain"), "x");
    destination_ = scratch_->file("plain/pack.zip");
    const auto final = download("/echo");
    EXPECT_EQ(final.error, (DownloadError{DownloadErrorCode::FileSystemError,
                                          destination_ + " is not writable."}));
}

TEST_F(CurlHttpServiceDownloadTest, AFailedRenameIsAFileSystemErrorWithTheSystemsText) {
    fs::create_directories(fs::path(destination_) / "occupied");
    server_->serve("/pack", TestFile{.content = "whole", .etag = ""});
    const auto final = download("/pack");
    EXPECT_EQ(final.state, DownloadState::Failed);
    EXPECT_EQ(final.error, (DownloadError{DownloadErrorCode::FileSystemError, "Is a directory"}));
    EXPECT_FALSE(fs::exists(part()));  // nothing to resume without validators
}

TEST_F(CurlHttpServiceDownloadTest, AnErrorStatusFinishesWithItsBodyAndLeavesTheDestination) {
    test::writeWholeFile(destination_, "previous pack");
    const auto final = download("/status/404/json");
    EXPECT_EQ(final.state, DownloadState::Finished);
    EXPECT_EQ(final.error, nullopt);
    ASSERT_TRUE(final.httpResult && final.httpResult->has_value());
    EXPECT_EQ((*final.httpResult)->code, 404);
    const std::string body = R"({"message":"status 404"})";
    EXPECT_EQ(std::string((*final.httpResult)->data.begin(), (*final.httpResult)->data.end()),
              body);
    EXPECT_EQ(final.receivedBytes, body.size());
    EXPECT_EQ(final.totalBytes, body.size());
    EXPECT_EQ(test::readWholeFile(destination_), "previous pack");
    EXPECT_FALSE(fs::exists(part()));
    EXPECT_FALSE(fs::exists(rd()));
}

TEST_F(CurlHttpServiceDownloadTest, AnErrorBodyIsKeptUpTo64KiB) {
    TestFile file;
    file.status = 500;
    file.content = test::testContent(1024 * 1024);
    server_->serve("/broken", file);
    const auto final = download("/broken");
    EXPECT_EQ(final.state, DownloadState::Finished);
    ASSERT_TRUE(final.httpResult && final.httpResult->has_value());
    EXPECT_EQ((*final.httpResult)->code, 500);
    EXPECT_EQ((*final.httpResult)->data.size(), DownloadTransfer::kMaxErrorBody);
    EXPECT_EQ(std::string((*final.httpResult)->data.begin(), (*final.httpResult)->data.end()),
              file.content.substr(0, DownloadTransfer::kMaxErrorBody));
    EXPECT_FALSE(fs::exists(destination_));
}

TEST_F(CurlHttpServiceDownloadTest, CompressedDownloadsAreDecodedButNotResumable) {
    TestFile file;
    file.content = test::gzipEncode("decoded pack");
    file.contentEncoding = "gzip";
    server_->serve("/packed", file);
    const auto final = download("/packed");
    EXPECT_EQ(final.state, DownloadState::Finished);
    EXPECT_EQ(test::readWholeFile(destination_), "decoded pack");
    EXPECT_EQ(final.totalBytes, 12u);
}

TEST_F(CurlHttpServiceDownloadTest, RedirectsAreFollowedForDownloads) {
    EXPECT_EQ(download("/redirect/3").state, DownloadState::Finished);
    EXPECT_EQ(test::readWholeFile(destination_), "redirected");
}

TEST_F(CurlHttpServiceDownloadTest, ProgressReportsAreAtLeast100MillisecondsApart) {
    TestFile file;
    file.content = test::testContent(256 * 1024);
    file.stallAfter = 128 * 1024;
    server_->serve("/pack", file);
    StatusInbox inbox;
    start("/pack", inbox);
    waitForBytes(inbox, 128 * 1024);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    server_->releaseStalls();  // the first answer breaks off; a resume would fetch the rest
    test::waitForFinal(inbox);
    const auto times = inbox.times();
    const auto statuses = inbox.items();
    // Pending and the first Downloading come together; progress after that is coalesced.
    for (std::size_t index = 2; index + 1 < statuses.size(); ++index) {
        EXPECT_GE(times[index] - times[index - 1],
                  DownloadTransfer::kProgressInterval - std::chrono::milliseconds(1))
            << "report " << index;
    }
}

TEST_F(CurlHttpServiceDownloadTest, CancellingAfterTheHeadStoresResumeDataAndResumeAppends) {
    const std::string content = test::testContent(512 * 1024, 3);
    TestFile file;
    file.content = content;
    file.stallAfter = 200 * 1024;
    file.lastModified = "Tue, 01 Oct 2024 10:00:00 GMT";
    server_->serve("/pack", file);

    StatusInbox first;
    const auto id = start("/pack", first);
    waitForBytes(first, 200 * 1024);
    // Written as soon as the head of a resumable answer arrived.
    ASSERT_TRUE(fs::exists(rd()));
    EXPECT_TRUE(cancel(id));
    server_->releaseStalls();
    const auto stored = decodeResumeData(test::readWholeFile(rd()));
    ASSERT_TRUE(stored);
    EXPECT_EQ(*stored, (ResumeData{server_->url("/pack"), part(), 200 * 1024, "\"v1\"",
                                   "Tue, 01 Oct 2024 10:00:00 GMT"}));
    EXPECT_EQ(fs::file_size(part()), 200u * 1024);
    EXPECT_FALSE(fs::exists(destination_));

    StatusInbox second;
    start("/pack", second, true);
    const auto final = test::waitForFinal(second);
    stopService();

    const auto statuses = second.items();
    ASSERT_GE(statuses.size(), 3u);
    EXPECT_EQ(statuses[0].state, DownloadState::Pending);
    // A resumed download reports Downloading once the server has answered, from where it was.
    EXPECT_EQ(statuses[1].state, DownloadState::Downloading);
    EXPECT_EQ(statuses[1].receivedBytes, 200u * 1024);
    EXPECT_EQ(statuses[1].totalBytes, content.size());
    EXPECT_EQ(final.state, DownloadState::Finished);
    EXPECT_EQ(final.receivedBytes, content.size());
    EXPECT_EQ((*final.httpResult)->code, 206);
    EXPECT_EQ(test::readWholeFile(destination_), content);
    EXPECT_EQ(cachedDigest(), util::md5String(content));  // the bytes from before included
    EXPECT_FALSE(fs::exists(rd()));
    EXPECT_FALSE(fs::exists(part()));

    // The first download's callback heard nothing after the cancellation.
    EXPECT_NE(first.items().back().state, DownloadState::Finished);
    const auto resumed = server_->requestsFor("/pack").back();
    EXPECT_EQ(resumed.header("range"), "bytes=204800-");
    EXPECT_EQ(resumed.header("if-range"), "\"v1\"");
}

TEST_F(CurlHttpServiceDownloadTest, ADroppedConnectionStoresResumeDataForTheNextAttempt) {
    const std::string content = test::testContent(300 * 1024, 4);
    TestFile file;
    file.content = content;
    file.dropAfter = 100 * 1024;
    server_->serve("/pack", file);

    const auto failed = download("/pack");
    EXPECT_EQ(failed.state, DownloadState::Failed);
    EXPECT_EQ(failed.error->code, DownloadErrorCode::NetworkError);
    ASSERT_TRUE(fs::exists(rd()));
    EXPECT_EQ(decodeResumeData(test::readWholeFile(rd()))->bytes, 100u * 1024);

    const auto resumed = download("/pack", true);
    EXPECT_EQ(resumed.state, DownloadState::Finished);
    EXPECT_EQ(test::readWholeFile(destination_), content);
}

TEST_F(CurlHttpServiceDownloadTest, AChangedFileStartsOverFromZero) {
    TestFile file;
    file.content = test::testContent(200 * 1024, 5);
    file.dropAfter = 50 * 1024;
    server_->serve("/pack", file);
    EXPECT_EQ(download("/pack").state, DownloadState::Failed);

    file.content = test::testContent(150 * 1024, 6);
    file.etag = "\"v2\"";
    file.dropAfter.reset();
    server_->serve("/pack", file);
    StatusInbox inbox;
    start("/pack", inbox, true);
    const auto final = test::waitForFinal(inbox);
    EXPECT_EQ(inbox.items()[1].state, DownloadState::Downloading);
    EXPECT_EQ(inbox.items()[1].receivedBytes, 0u);
    EXPECT_EQ((*final.httpResult)->code, 200);
    EXPECT_EQ(test::readWholeFile(destination_), file.content);
    EXPECT_EQ(cachedDigest(), util::md5String(file.content));
    EXPECT_EQ(server_->requestsFor("/pack").back().header("if-range"), "\"v1\"");
}

TEST_F(CurlHttpServiceDownloadTest, AnUnsatisfiableRangeStartsOverOnceWithoutARange) {
    const std::string content = test::testContent(10 * 1024, 7);
    server_->serve("/pack", TestFile{.content = content});
    // Resume data from a longer version of the file under the same tag.
    test::writeWholeFile(part(), test::testContent(20 * 1024, 8));
    ASSERT_TRUE(storeResumeData(
        destination_, ResumeData{server_->url("/pack"), part(), 20 * 1024, "\"v1\"", ""}));

    const auto final = download("/pack", true);
    EXPECT_EQ(final.state, DownloadState::Finished);
    EXPECT_EQ(test::readWholeFile(destination_), content);
    const auto requests = server_->requestsFor("/pack");
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].header("range"), "bytes=20480-");
    EXPECT_EQ(requests[1].header("range"), nullopt);
    EXPECT_EQ(requests[1].header("if-range"), nullopt);
}

TEST_F(CurlHttpServiceDownloadTest, BytesWrittenAfterTheLastStoredDataAreKept) {
    // As after a kill: the data was stored when the head came, the partial file grew later.
    const std::string content = test::testContent(64 * 1024, 9);
    server_->serve("/pack", TestFile{.content = content});
    test::writeWholeFile(part(), content.substr(0, 40000));
    ASSERT_TRUE(
        storeResumeData(destination_, ResumeData{server_->url("/pack"), part(), 0, "\"v1\"", ""}));
    EXPECT_EQ(download("/pack", true).state, DownloadState::Finished);
    EXPECT_EQ(server_->requestsFor("/pack").back().header("range"), "bytes=40000-");
    EXPECT_EQ(test::readWholeFile(destination_), content);
    EXPECT_EQ(cachedDigest(), util::md5String(content));
}

TEST_F(CurlHttpServiceDownloadTest, ResumeDataForAnotherUrlIsIgnoredAndKept) {
    // Without validators the download has no resume data of its own to put in the other's place.
    server_->serve("/pack", TestFile{.content = "whole", .etag = ""});
    test::writeWholeFile(part(), "partial");
    const ResumeData other{server_->url("/other"), part(), 7, "\"v1\"", ""};
    ASSERT_TRUE(storeResumeData(destination_, other));

    StatusInbox inbox;
    start("/pack", inbox, true);
    test::waitForFinal(inbox);
    // Without usable data the download starts fresh and says so at once.
    EXPECT_EQ(inbox.items()[1].state, DownloadState::Downloading);
    EXPECT_EQ(server_->requestsFor("/pack").back().header("range"), nullopt);
    EXPECT_EQ(test::readWholeFile(destination_), "whole");
    EXPECT_EQ(decodeResumeData(test::readWholeFile(rd())), other);
}

TEST_F(CurlHttpServiceDownloadTest, ResumeWithoutDataStartsFresh) {
    server_->serve("/pack", TestFile{.content = "whole"});
    StatusInbox inbox;
    start("/pack", inbox, true);
    test::waitForFinal(inbox);
    EXPECT_EQ(statesOf(inbox.items())[1], DownloadState::Downloading);
    EXPECT_EQ(test::readWholeFile(destination_), "whole");
}

TEST_F(CurlHttpServiceDownloadTest, ValidResumeDataIsUsedUpEvenWhenTheServerRefuses) {
    test::writeWholeFile(part(), "partial");
    const ResumeData data{server_->url("/status/503/plain"), part(), 7, "\"v1\"", ""};
    ASSERT_TRUE(storeResumeData(destination_, data));
    const auto final = download("/status/503/plain", true);
    EXPECT_EQ(final.state, DownloadState::Finished);
    EXPECT_EQ((*final.httpResult)->code, 503);
    // The partial file is untouched, so the data is put back for a later attempt.
    EXPECT_EQ(decodeResumeData(test::readWholeFile(rd())), data);
    EXPECT_EQ(test::readWholeFile(part()), "partial");
}

TEST_F(CurlHttpServiceDownloadTest, CancellingBeforeAnyBytesStoresNothingAndAnswersFalse) {
    StatusInbox inbox;
    const auto id = start("/slow-head?ms=3000", inbox);
    inbox.waitFor(2);
    while (server_->requestsFor("/slow-head").empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_FALSE(cancel(id));
    stopService();
    EXPECT_EQ(statesOf(inbox.items()),
              (std::vector{DownloadState::Pending, DownloadState::Downloading}));
    EXPECT_FALSE(fs::exists(rd()));
    EXPECT_FALSE(fs::exists(part()));
}

TEST_F(CurlHttpServiceDownloadTest, AFinishedOrUnknownDownloadCannotBeCancelled) {
    server_->serve("/pack", TestFile{.content = "whole"});
    StatusInbox inbox;
    const auto id = start("/pack", inbox);
    test::waitForFinal(inbox);
    EXPECT_FALSE(cancel(id));
    EXPECT_FALSE(cancel(nextHttpRequestId() + 100));
}

TEST_F(CurlHttpServiceDownloadTest, CancelInsideItsOwnProgressCallbackEndsTheReports) {
    TestFile file;
    file.content = test::testContent(128 * 1024);
    file.stallAfter = 64 * 1024;
    server_->serve("/pack", file);
    StatusInbox inbox;
    test::AnswerInbox answers;
    std::atomic<std::uint64_t> id{0};
    bool cancelled = false;  // engine thread only
    auto record = inbox.callback();
    CurlHttpService* service = service_.get();
    id = service->download(DownloadOptions(HttpRequest(server_->url("/pack")), destination_),
                           [&](DownloadStatus&& status) {
                               const bool progressed = status.receivedBytes > 0;
                               record(std::move(status));
                               if (progressed && !cancelled) {
                                   cancelled = true;
                                   service->cancelRequest(id, answers.callback());
                                   // Answered before the call returned.
                                   EXPECT_EQ(answers.items().size(), 1u);
                               }
                           });
    EXPECT_TRUE(answers.waitFor(1));
    server_->releaseStalls();
    stopService();
    const auto last = inbox.items().back();
    EXPECT_FALSE(isFinal(last.state));
    EXPECT_GT(last.receivedBytes, 0u);
    EXPECT_EQ(decodeResumeData(test::readWholeFile(rd()))->bytes, fs::file_size(part()));
}

TEST_F(CurlHttpServiceDownloadTest, NoHeadInTimeFailsAsTimedOut) {
    const auto final = download("/slow-head?ms=5000", false, 1);
    EXPECT_EQ(final.state, DownloadState::Failed);
    EXPECT_EQ(final.error, (DownloadError{DownloadErrorCode::NetworkError, "Request timed out."}));
    ASSERT_TRUE(final.httpResult);
    EXPECT_EQ(*final.httpResult,
              HttpResult(unexpected(
                  HttpRequestError{HttpRequestErrorType::RequestTimedOut, "Request timed out."})));
}

TEST_F(CurlHttpServiceDownloadTest, AStalledBodyTimesOutAndKeepsWhatArrived) {
    StatusInbox inbox;
    start("/stall-mid-body", inbox, false, 1);
    const auto final = test::waitForFinal(inbox);
    server_->releaseStalls();
    EXPECT_EQ(final.error, (DownloadError{DownloadErrorCode::NetworkError, "Request timed out."}));
    EXPECT_EQ(final.receivedBytes, 16u * 1024);
    EXPECT_EQ(decodeResumeData(test::readWholeFile(rd()))->bytes, 16u * 1024);
    EXPECT_EQ(fs::file_size(part()), 16u * 1024);
}

TEST_F(CurlHttpServiceDownloadTest, TheEngineKeepsServingWhileADownloadWaitsForItsTimeout) {
    StatusInbox slow;
    start("/slow-head?ms=5000", slow, false, 2);
    test::ResponseInbox quick;
    service_->request(HttpRequest(server_->url("/echo")), quick.callback());
    EXPECT_EQ(quick.waitFor(1).result->code, 200);
    EXPECT_TRUE(slow.items().empty() || !isFinal(slow.items().back().state));
    EXPECT_EQ(test::waitForFinal(slow).error->message, "Request timed out.");
}

TEST_F(CurlHttpServiceDownloadTest, AChangingEtagIsNeverResumed) {
    TestFile file;
    StatusInbox inbox;
    const auto id = start("/changing-etag", inbox);
    test::waitForFinal(inbox);
    (void)id;
    ASSERT_FALSE(fs::exists(rd()));
    // Data left by an earlier attempt names v1; the server is at v2 by now.
    test::writeWholeFile(part(), "0123456789");
    ASSERT_TRUE(storeResumeData(
        destination_, ResumeData{server_->url("/changing-etag"), part(), 10, "\"v1\"", ""}));
    const auto final = download("/changing-etag", true);
    EXPECT_EQ((*final.httpResult)->code, 200);
    EXPECT_EQ((*final.httpResult)->headers.at("etag"), "\"v2\"");
    EXPECT_EQ(final.receivedBytes, 64u * 1024);
}

TEST_F(CurlHttpServiceDownloadTest, ReleasingTheServiceKeepsResumeDataOfRunningDownloads) {
    TestFile file;
    file.content = test::testContent(64 * 1024);
    file.stallAfter = 32 * 1024;
    server_->serve("/pack", file);
    StatusInbox inbox;
    start("/pack", inbox);
    waitForBytes(inbox, 32 * 1024);
    const auto reports = inbox.items().size();
    stopService();
    server_->releaseStalls();
    EXPECT_EQ(inbox.items().size(), reports);
    EXPECT_EQ(decodeResumeData(test::readWholeFile(rd()))->bytes, 32u * 1024);
}

}  // namespace
}  // namespace terrane::common
