#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
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
using test::StatusInbox;
using test::TestFile;

std::vector<DownloadState> statesOf(const std::vector<DownloadStatus>& statuses) {
    std::vector<DownloadState> states;
    for (const auto& status : statuses) {
        states.push_back(status.state);
    }
    return states;
}

std::string bodyOf(const DownloadStatus& status) {
    return {(*status.httpResult)->data.begin(), (*status.httpResult)->data.end()};
}

class CurlHttpServiceDownloadTest : public test::CurlServiceTest {
  protected:
    // The digest taken while the bytes were written, which md5File answers with instead of
    // reading the file.
    optional<std::string> cachedDigest() const {
        struct stat status {};
        if (::stat(destination_.c_str(), &status) != 0) {
            return nullopt;
        }
        return util::DigestCache::instance().find(util::FileIdentity::of(status));
    }

    // The resume data on disk covers exactly the partial file.
    void expectResumeDataFor(std::uint64_t bytes) const {
        EXPECT_EQ(decodeResumeData(test::readWholeFile(rd()))->bytes, bytes);
        EXPECT_EQ(fs::file_size(part()), bytes);
    }
};

TEST_F(CurlHttpServiceDownloadTest, AFreshDownloadReportsPendingDownloadingThenFinished) {
    const std::string content = test::testContent(3 * 1024 * 1024);
    server_.serve("/pack", TestFile{.content = content, .cacheControl = "max-age=3600"});

    StatusInbox inbox;
    const auto id = start("/pack", inbox);
    const auto final = test::waitForFinal(inbox);
    EXPECT_FALSE(cancel(id));  // finished
    service_.reset();

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
    EXPECT_EQ(final.downloadOptions.request.url, server_.url("/pack"));
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

TEST_F(CurlHttpServiceDownloadTest, AnAnswerReplacesTheDestinationOnlyWhenItIsTheFile) {
    const std::string large = test::testContent(1024 * 1024);
    server_.serve("/pack", TestFile{.content = "new"});
    server_.serve("/packed",
                  TestFile{.content = test::gzipEncode("decoded pack"), .contentEncoding = "gzip"});
    server_.serve("/broken", TestFile{.content = large, .status = 500});
    const struct {
        const char* path;
        int code;
        std::string destination;  // "previous" stays for an error status
        std::string body;         // kept for an error status, at most kMaxErrorBody bytes
    } rows[] = {
        {"/pack", 200, "new", ""},
        {"/packed", 200, "decoded pack", ""},  // decoded, so not resumable
        {"/redirect/3", 200, "redirected", ""},
        {"/status/404/json", 404, "previous", R"({"message":"status 404"})"},
        {"/broken", 500, "previous", large.substr(0, DownloadTransfer::kMaxErrorBody)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        test::writeWholeFile(destination_, "previous");
        const auto final = download(row.path);
        EXPECT_EQ(final.state, DownloadState::Finished);
        EXPECT_EQ(final.error, nullopt);
        ASSERT_TRUE(final.httpResult && final.httpResult->has_value());
        EXPECT_EQ((*final.httpResult)->code, row.code);
        EXPECT_EQ(bodyOf(final), row.body);
        // What was kept, the file or the error body, is all there was.
        const auto kept = row.code == 200 ? row.destination.size() : row.body.size();
        EXPECT_EQ(final.totalBytes, kept);
        EXPECT_EQ(final.receivedBytes, kept);
        EXPECT_EQ(test::readWholeFile(destination_), row.destination);
        EXPECT_FALSE(fs::exists(part()));
        EXPECT_FALSE(fs::exists(rd()));
    }
}

TEST_F(CurlHttpServiceDownloadTest, AnUnwritableDestinationIsAFileSystemError) {
    server_.serve("/pack", TestFile{.content = "whole", .etag = ""});
    test::writeWholeFile(scratch_.file("plain"), "x");
    fs::create_directories(scratch_.path() / "occupied" / "inside");
    const struct {
        std::string destination;
        std::string message;
        bool asks;  // whether the server is asked at all
    } rows[] = {
        {scratch_.file("missing/pack.zip"), scratch_.file("missing/pack.zip") + " is not writable.",
         false},
        {scratch_.file("plain/pack.zip"), scratch_.file("plain/pack.zip") + " is not writable.",
         false},
        // The rename at the end fails; without validators nothing is kept to resume.
        {scratch_.file("occupied"), "Is a directory", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.destination);
        destination_ = row.destination;
        const auto before = server_.requestsFor("/pack").size();
        StatusInbox inbox;
        start("/pack", inbox);
        const auto final = test::waitForFinal(inbox);
        EXPECT_EQ(final.error, (DownloadError{DownloadErrorCode::FileSystemError, row.message}));
        EXPECT_EQ(server_.requestsFor("/pack").size() - before, row.asks ? 1u : 0u);
        if (!row.asks) {
            EXPECT_EQ(statesOf(inbox.items()),
                      (std::vector{DownloadState::Pending, DownloadState::Failed}));
        }
        EXPECT_FALSE(fs::exists(part()));
    }
}

TEST_F(CurlHttpServiceDownloadTest, CancellingAfterTheHeadStoresResumeDataAndResumeAppends) {
    const std::string content = test::testContent(512 * 1024, 3);
    server_.serve("/pack", TestFile{.content = content,
                                    .lastModified = "Tue, 01 Oct 2024 10:00:00 GMT",
                                    .stallAfter = 200 * 1024});

    StatusInbox first;
    const auto id = start("/pack", first);
    test::waitForBytes(first, 200 * 1024);
    // Written as soon as the head of a resumable answer arrived.
    ASSERT_TRUE(fs::exists(rd()));
    EXPECT_TRUE(cancel(id));
    server_.release();
    EXPECT_EQ(decodeResumeData(test::readWholeFile(rd())),
              (ResumeData{server_.url("/pack"), part(), 200 * 1024, "\"v1\"",
                          "Tue, 01 Oct 2024 10:00:00 GMT"}));
    EXPECT_EQ(fs::file_size(part()), 200u * 1024);
    EXPECT_FALSE(fs::exists(destination_));

    StatusInbox second;
    start("/pack", second, true);
    const auto final = test::waitForFinal(second);
    service_.reset();

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
    const auto resumed = server_.requestsFor("/pack").back();
    EXPECT_EQ(resumed.header("range"), "bytes=204800-");
    EXPECT_EQ(resumed.header("if-range"), "\"v1\"");
}

TEST_F(CurlHttpServiceDownloadTest, ADroppedConnectionReportsSparselyAndKeepsResumeData) {
    const std::string content = test::testContent(256 * 1024, 4);
    server_.serve("/pack", TestFile{.content = content, .stallAfter = 128 * 1024});
    StatusInbox inbox;
    start("/pack", inbox);
    test::waitForBytes(inbox, 128 * 1024);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    server_.release();  // the answer breaks off
    const auto failed = test::waitForFinal(inbox);
    EXPECT_EQ(failed.error->code, DownloadErrorCode::NetworkError);
    expectResumeDataFor(128 * 1024);
    // Pending and the first Downloading come together; progress after that is coalesced.
    const auto times = inbox.times();
    for (std::size_t index = 2; index + 1 < times.size(); ++index) {
        EXPECT_GE(times[index] - times[index - 1],
                  DownloadTransfer::kProgressInterval - std::chrono::milliseconds(1))
            << "report " << index;
    }

    EXPECT_EQ(download("/pack", true).state, DownloadState::Finished);
    EXPECT_EQ(test::readWholeFile(destination_), content);
}

TEST_F(CurlHttpServiceDownloadTest, StoredResumeDataIsUsedOnlyForTheSameFile) {
    const std::string content = test::testContent(64 * 1024, 9);
    const std::string older = test::testContent(64 * 1024, 8);
    const struct {
        const char* name;
        const char* etag;  // of the file on the server
        int status;
        // The stored data, by path, bytes and partial file; no data when the path is empty.
        const char* storedPath;
        std::uint64_t storedBytes;
        std::string partial;
        const char* range;  // of the first request; null for none
        bool retried;       // once more without a range
        int code;
        std::int64_t firstReported;  // bytes of the first Downloading report; -1 for any
        bool resumeDataKept;
    } rows[] = {
        {"the same file", "\"v1\"", 200, "/pack", 40000, content.substr(0, 40000), "bytes=40000-",
         false, 206, 40000, false},
        // As after a kill: the data was stored when the head came, the partial file grew later.
        {"bytes written after the data was stored", "\"v1\"", 200, "/pack", 0,
         content.substr(0, 40000), "bytes=40000-", false, 206, 40000, false},
        {"a changed file", "\"v2\"", 200, "/pack", 1000, older.substr(0, 1000), "bytes=1000-",
         false, 200, 0, false},
        {"a shorter file under the same tag", "\"v1\"", 200, "/pack", older.size() + 10,
         older + "0123456789", "bytes=65546-", true, 200, 0, false},
        {"data of another URL", "", 200, "/other", 7, "partial", nullptr, false, 200, 0, true},
        {"no data", "\"v1\"", 200, "", 0, "", nullptr, false, 200, 0, false},
        // The partial file is untouched, so the data is put back for a later attempt.
        {"a refusal", "\"v1\"", 503, "/pack", 7, "partial", "bytes=7-", false, 503, -1, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string prefix = "/" + std::to_string(&row - rows);
        const std::string path = prefix + "/pack";
        server_.serve(path, TestFile{.content = content, .status = row.status, .etag = row.etag});
        const ResumeData stored{server_.url(prefix + row.storedPath), part(), row.storedBytes,
                                "\"v1\"", ""};
        if (*row.storedPath != '\0') {
            test::writeWholeFile(part(), row.partial);
            ASSERT_TRUE(storeResumeData(destination_, stored));
        }
        StatusInbox inbox;
        start(path, inbox, true);
        const auto final = test::waitForFinal(inbox);
        EXPECT_EQ((*final.httpResult)->code, row.code);
        if (row.firstReported >= 0) {
            EXPECT_EQ(inbox.items()[1].state, DownloadState::Downloading);
            EXPECT_EQ(inbox.items()[1].receivedBytes,
                      static_cast<std::uint64_t>(row.firstReported));
        }
        std::vector<optional<std::string>> ranges;
        for (const auto& request : server_.requestsFor(path)) {
            ranges.push_back(request.header("range"));
            EXPECT_EQ(request.header("if-range"),
                      request.header("range") ? optional<std::string>("\"v1\"") : nullopt);
        }
        std::vector<optional<std::string>> expected{row.range ? optional<std::string>(row.range)
                                                              : nullopt};
        if (row.retried) {
            expected.push_back(nullopt);
        }
        EXPECT_EQ(ranges, expected);
        if (row.code == 503) {
            EXPECT_EQ(test::readWholeFile(part()), row.partial);
        } else {
            EXPECT_EQ(test::readWholeFile(destination_), content);
            EXPECT_EQ(cachedDigest(), util::md5String(content));
        }
        if (row.resumeDataKept) {
            EXPECT_EQ(decodeResumeData(test::readWholeFile(rd())), stored);
        } else {
            EXPECT_FALSE(fs::exists(rd()));
        }
        fs::remove(destination_);
        fs::remove(part());
        fs::remove(rd());
    }
}

TEST_F(CurlHttpServiceDownloadTest, CancellingBeforeAnyBytesStoresNothingAndAnswersFalse) {
    StatusInbox inbox;
    const auto id = start("/slow-head?ms=3000", inbox);
    inbox.waitFor(2);
    while (server_.requestsFor("/slow-head").empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_FALSE(cancel(id));
    EXPECT_FALSE(cancel(nextHttpRequestId() + 100));
    service_.reset();
    EXPECT_EQ(statesOf(inbox.items()),
              (std::vector{DownloadState::Pending, DownloadState::Downloading}));
    EXPECT_FALSE(fs::exists(rd()));
    EXPECT_FALSE(fs::exists(part()));
}

TEST_F(CurlHttpServiceDownloadTest, CancelInsideItsOwnProgressCallbackEndsTheReports) {
    server_.serve("/pack",
                  TestFile{.content = test::testContent(128 * 1024), .stallAfter = 64 * 1024});
    StatusInbox inbox;
    test::AnswerInbox answers;
    std::atomic<std::uint64_t> id{0};
    bool cancelled = false;  // engine thread only
    auto record = inbox.callback();
    CurlHttpService* service = service_.get();
    id = service->download(DownloadOptions(HttpRequest(server_.url("/pack")), destination_),
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
    server_.release();
    service_.reset();
    const auto last = inbox.items().back();
    EXPECT_FALSE(isFinal(last.state));
    EXPECT_GT(last.receivedBytes, 0u);
    expectResumeDataFor(fs::file_size(part()));
}

TEST_F(CurlHttpServiceDownloadTest, TimeoutsKeepWhatArrivedWhileTheEngineServesOthers) {
    server_.serve("/stall", TestFile{.content = test::testContent(64 * 1024),
                                     .stallAfter = 16 * 1024,
                                     .faultyResponses = 1 << 30});
    StatusInbox noHead;
    start("/slow-head?ms=5000", noHead, false, 2);
    test::ResponseInbox quick;
    service_->request(HttpRequest(server_.url("/echo")), quick.callback());
    EXPECT_EQ(quick.waitFor(1).result->code, 200);
    EXPECT_TRUE(noHead.items().empty() || !isFinal(noHead.items().back().state));
    const auto final = test::waitForFinal(noHead);
    const auto timedOut = DownloadError{DownloadErrorCode::NetworkError, "Request timed out."};
    EXPECT_EQ(final.error, timedOut);
    EXPECT_EQ(*final.httpResult,
              HttpResult(unexpected(
                  HttpRequestError{HttpRequestErrorType::RequestTimedOut, "Request timed out."})));
    EXPECT_FALSE(fs::exists(rd()));

    StatusInbox stalled;
    start("/stall", stalled, false, 1);
    const auto cut = test::waitForFinal(stalled);
    server_.release();
    EXPECT_EQ(cut.error, timedOut);
    EXPECT_EQ(cut.receivedBytes, 16u * 1024);
    expectResumeDataFor(16 * 1024);
}

TEST_F(CurlHttpServiceDownloadTest, ReleasingTheServiceKeepsResumeDataOfRunningDownloads) {
    server_.serve("/pack",
                  TestFile{.content = test::testContent(64 * 1024), .stallAfter = 32 * 1024});
    StatusInbox inbox;
    start("/pack", inbox);
    test::waitForBytes(inbox, 32 * 1024);
    const auto reports = inbox.items().size();
    service_.reset();
    server_.release();
    EXPECT_EQ(inbox.items().size(), reports);
    expectResumeDataFor(32 * 1024);
}

}  // namespace
}  // namespace terrane::common
