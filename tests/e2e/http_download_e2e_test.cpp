// The Linux HTTP service against a real nginx on loopback: its Range, If-Range, ETag and
// Cache-Control behaviour, and downloads cut off mid-way (cancelled, or the server killed) that
// resume to a file with the right MD5, also from an nginx that compresses whatever it can.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include "platform/linux/curl_http_service.hpp"
#include "platform/linux/curl_test_support.hpp"
#include "platform/linux/resume_data.hpp"
#include "terrane/util/md5.hpp"
#include "testing/http_test_server.hpp"
#include "testing/nginx_server.hpp"

namespace terrane::common {
namespace {

namespace fs = std::filesystem;
using test::NginxServer;
using test::StatusInbox;

constexpr std::size_t kFileSize = 2 * 1024 * 1024;

class HttpDownloadEndToEndTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!NginxServer::isInstalled()) {
            GTEST_SKIP() << "nginx is not installed at " << NginxServer::kExecutable;
        }
        scratch_ = std::make_unique<test::ScratchDirectory>();
        fs::create_directories(scratch_->path() / "www");
        fs::create_directories(scratch_->path() / "out");
        writeServedFile(test::testContent(kFileSize, 11));
        // 2 MiB/s per connection: the 2 MiB file takes a second, long enough to cut it off.
        nginx_ = std::make_unique<NginxServer>(scratch_->path() / "www", scratch_->path() / "nginx",
                                               "2m", "32k");
        service_ = std::make_shared<CurlHttpService>();
        destination_ = (scratch_->path() / "out" / "pack.bin").string();
    }

    void writeServedFile(const std::string& content) {
        served_ = content;
        test::writeWholeFile(scratch_->path() / "www" / "pack.bin", content);
    }

    std::uint64_t start(StatusInbox& inbox, const std::string& path, bool resume) {
        return service_->download(
            DownloadOptions(HttpRequest(nginx_->url(path)), destination_, resume),
            inbox.callback());
    }

    bool cancel(std::uint64_t id) { return test::cancel(*service_, id); }

    void expectDestinationMatchesServedFile() {
        EXPECT_EQ(util::md5File(destination_), util::md5String(served_));
        EXPECT_FALSE(fs::exists(resumeDataPathFor(destination_)));
        EXPECT_FALSE(fs::exists(partialFilePathFor(destination_)));
    }

    std::unique_ptr<test::ScratchDirectory> scratch_;
    std::unique_ptr<NginxServer> nginx_;
    std::shared_ptr<CurlHttpService> service_;
    std::string destination_;
    std::string served_;
};

TEST_F(HttpDownloadEndToEndTest, AWholeDownloadCarriesNginxsValidatorsAndCacheControl) {
    StatusInbox inbox;
    start(inbox, "/pack.bin", false);
    const auto final = test::waitForFinal(inbox);
    ASSERT_EQ(final.state, DownloadState::Finished);
    EXPECT_EQ(final.totalBytes, kFileSize);
    const auto& head = **final.httpResult;
    EXPECT_EQ(head.code, 200);
    EXPECT_EQ(head.headers.at("cache-control"), "max-age=3600");
    EXPECT_EQ(head.headers.at("accept-ranges"), "bytes");
    EXPECT_TRUE(head.headers.at("etag").starts_with("\"")) << head.headers.at("etag");
    EXPECT_FALSE(head.headers.at("last-modified").empty());
    expectDestinationMatchesServedFile();

    // A missing file is a finished 404 with nginx's page, and leaves the destination alone.
    StatusInbox missing;
    start(missing, "/missing.bin", false);
    const auto notFound = test::waitForFinal(missing);
    ASSERT_EQ(notFound.state, DownloadState::Finished);
    EXPECT_EQ((**notFound.httpResult).code, 404);
    const std::string body((**notFound.httpResult).data.begin(),
                           (**notFound.httpResult).data.end());
    EXPECT_NE(body.find("404 Not Found"), std::string::npos) << body;
    EXPECT_EQ(util::md5File(destination_), util::md5String(served_));
}

TEST_F(HttpDownloadEndToEndTest, ADownloadCutOffMidWayResumesToTheServedFile) {
    enum class Cut { Cancelled, ServerKilled, FileChanged };
    const struct {
        const char* name;
        Cut cut;
        int code;  // of the resumed answer
    } rows[] = {
        {"cancelled", Cut::Cancelled, 206},
        {"the server killed", Cut::ServerKilled, 206},
        {"the file changed on the server meanwhile", Cut::FileChanged, 200},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        StatusInbox first;
        const auto id = start(first, "/slow/pack.bin", false);
        test::waitForBytes(first, 256 * 1024);
        if (row.cut == Cut::ServerKilled) {
            nginx_->kill();
            const auto failed = test::waitForFinal(first);
            ASSERT_EQ(failed.state, DownloadState::Failed);
            EXPECT_EQ(failed.error->code, DownloadErrorCode::NetworkError);
            nginx_->restart();
        } else {
            ASSERT_TRUE(cancel(id));
        }
        const auto stored = decodeResumeData(test::readWholeFile(resumeDataPathFor(destination_)));
        ASSERT_TRUE(stored);
        EXPECT_GE(stored->bytes, 256u * 1024);
        EXPECT_LT(stored->bytes, kFileSize);
        EXPECT_EQ(stored->bytes, fs::file_size(partialFilePathFor(destination_)));
        if (row.cut != Cut::ServerKilled) {
            EXPECT_EQ(stored->etag, (**first.items().back().httpResult).headers.at("etag"));
        }
        if (row.cut == Cut::FileChanged) {
            // nginx's ETag is made of the modification time and the size: both change.
            writeServedFile(test::testContent(kFileSize / 2, 12));
            const auto path = scratch_->path() / "www" / "pack.bin";
            fs::last_write_time(path, fs::last_write_time(path) + std::chrono::seconds(5));
        }

        StatusInbox resumed;
        start(resumed, "/slow/pack.bin", true);
        const auto final = test::waitForFinal(resumed);
        ASSERT_EQ(final.state, DownloadState::Finished);
        EXPECT_EQ((**final.httpResult).code, row.code);
        if (row.code == 206) {
            EXPECT_EQ((**final.httpResult).headers.at("content-range"),
                      "bytes " + std::to_string(stored->bytes) + "-" +
                          std::to_string(kFileSize - 1) + "/" + std::to_string(kFileSize));
            EXPECT_EQ(resumed.items()[1].receivedBytes, stored->bytes);
        }
        EXPECT_EQ(final.receivedBytes, served_.size());
        expectDestinationMatchesServedFile();
        fs::remove(destination_);
    }
}

TEST_F(HttpDownloadEndToEndTest, ACompressingServerStillResumesAndConfirmsTheStoredTag) {
    nginx_ = std::make_unique<NginxServer>(scratch_->path() / "www", scratch_->path() / "gzip",
                                           "2m", "32k", NginxServer::Compression::GzipEverything);

    // Plain requests still take compression.
    test::ResponseInbox plain;
    service_->request(HttpRequest(nginx_->url("/pack.bin")), plain.callback());
    const auto compressed = plain.waitFor(1);
    ASSERT_TRUE(compressed.result.has_value());
    EXPECT_EQ(compressed.result->headers.at("content-encoding"), "gzip");
    EXPECT_EQ(test::bodyText(compressed), served_);

    StatusInbox first;
    const auto id = start(first, "/slow/pack.bin", false);
    test::waitForBytes(first, 256 * 1024);
    ASSERT_TRUE(cancel(id));
    const auto stored = decodeResumeData(test::readWholeFile(resumeDataPathFor(destination_)));
    ASSERT_TRUE(stored);
    EXPECT_FALSE(stored->etag.starts_with("W/")) << stored->etag;

    StatusInbox resumed;
    start(resumed, "/slow/pack.bin", true);
    const auto final = test::waitForFinal(resumed);
    ASSERT_EQ(final.state, DownloadState::Finished);
    const auto& head = **final.httpResult;
    EXPECT_EQ(head.code, 206);
    EXPECT_EQ(head.headers.at("content-range"), "bytes " + std::to_string(stored->bytes) + "-" +
                                                    std::to_string(kFileSize - 1) + "/" +
                                                    std::to_string(kFileSize));
    EXPECT_FALSE(head.headers.contains("content-encoding"));
    EXPECT_EQ(head.headers.at("etag"), stored->etag);
    expectDestinationMatchesServedFile();

    HttpRequest lease(nginx_->url("/pack.bin"),
                      {{"If-None-Match", stored->etag}, {"Accept-Encoding", "identity"}});
    lease.method = HttpMethod::Head;
    test::ResponseInbox renewed;
    service_->request(std::move(lease), renewed.callback());
    const auto notModified = renewed.waitFor(1);
    ASSERT_TRUE(notModified.result.has_value());
    EXPECT_EQ(notModified.result->code, 304);
}

}  // namespace
}  // namespace terrane::common
