// The Linux HTTP service against a real nginx on loopback: a whole download carries nginx's
// validators and Cache-Control, and downloads cut off mid-way (cancelled, the server killed, the
// file changed meanwhile, an nginx that compresses whatever it can) resume to the served file.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>

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

TEST(HttpDownloadEndToEndTest, NginxsValidatorsAndDownloadsCutOffMidWayThatResume) {
    if (!NginxServer::isInstalled()) {
        GTEST_SKIP() << "nginx is not installed at " << NginxServer::kExecutable;
    }
    test::TemporaryDirectory scratch;
    const fs::path served = scratch.path() / "www" / "pack.bin";
    fs::create_directories(served.parent_path());
    test::writeWholeFile(served, test::testContent(kFileSize, 11));
    const std::string destination = scratch.path() / "pack.bin";
    const auto service = std::make_shared<CurlHttpService>();
    std::unique_ptr<NginxServer> nginx;
    int started = 0;
    // 2 MiB/s per connection at "/slow/": the 2 MiB file takes a second, long enough to cut it.
    const auto startNginx = [&](NginxServer::Compression compression) {
        nginx = nullptr;
        const fs::path work = scratch.path() / ("nginx-" + std::to_string(++started));
        nginx = std::make_unique<NginxServer>(served.parent_path(), work, "2m", "32k", compression);
    };
    const auto download = [&](const std::string& path, bool resume, StatusInbox& inbox) {
        return service->download(
            DownloadOptions(HttpRequest(nginx->url(path)), destination, resume), inbox.callback());
    };
    const auto expectServedFile = [&] {
        EXPECT_EQ(util::md5File(destination), util::md5File(served));
        EXPECT_FALSE(fs::exists(resumeDataPathFor(destination)));
        EXPECT_FALSE(fs::exists(partialFilePathFor(destination)));
    };

    startNginx(NginxServer::Compression::Off);
    StatusInbox whole;
    download("/pack.bin", false, whole);
    const auto final = test::waitForFinal(whole);
    ASSERT_EQ(final.state, DownloadState::Finished);
    const auto& head = **final.httpResult;
    EXPECT_EQ(std::tuple(head.code, final.totalBytes, head.headers.at("cache-control"),
                         head.headers.at("accept-ranges")),
              std::tuple(200, kFileSize, "max-age=3600", "bytes"));
    EXPECT_FALSE(head.headers.at("last-modified").empty());
    expectServedFile();

    enum class Cut { Cancelled, ServerKilled, FileChanged };
    const struct {
        const char* name;
        Cut cut;
        NginxServer::Compression compression;
        int code;  // of the resumed answer
    } rows[] = {
        {"cancelled", Cut::Cancelled, NginxServer::Compression::Off, 206},
        {"the server killed", Cut::ServerKilled, NginxServer::Compression::Off, 206},
        // The entity tag of a compressed answer is weak; a download asks for the file as it is.
        {"cancelled, gzip", Cut::Cancelled, NginxServer::Compression::GzipEverything, 206},
        {"the file changed meanwhile", Cut::FileChanged, NginxServer::Compression::Off, 200},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove(destination);
        startNginx(row.compression);
        StatusInbox first;
        const auto id = download("/slow/pack.bin", false, first);
        test::waitForBytes(first, 256 * 1024);
        if (row.cut == Cut::ServerKilled) {
            nginx->kill();
            const auto failed = test::waitForFinal(first);
            ASSERT_EQ(failed.state, DownloadState::Failed);
            EXPECT_EQ(failed.error->code, DownloadErrorCode::NetworkError);
            nginx->restart();
        } else {
            ASSERT_TRUE(test::cancel(*service, id));
        }
        const auto stored = decodeResumeData(test::readWholeFile(resumeDataPathFor(destination)));
        ASSERT_TRUE(stored);
        EXPECT_GE(stored->bytes, 256u * 1024);
        EXPECT_LT(stored->bytes, kFileSize);
        EXPECT_EQ(stored->bytes, fs::file_size(partialFilePathFor(destination)));
        EXPECT_FALSE(stored->etag.starts_with("W/")) << stored->etag;
        if (row.cut == Cut::FileChanged) {
            // nginx's ETag is made of the modification time and the size: both change.
            test::writeWholeFile(served, test::testContent(kFileSize / 2, 12));
            fs::last_write_time(served, fs::last_write_time(served) + std::chrono::seconds(5));
        }

        StatusInbox resumed;
        download("/slow/pack.bin", true, resumed);
        const auto end = test::waitForFinal(resumed);
        ASSERT_EQ(end.state, DownloadState::Finished);
        const auto& answer = **end.httpResult;
        EXPECT_EQ(answer.code, row.code);
        EXPECT_FALSE(answer.headers.contains("content-encoding"));
        if (row.code == 206) {
            EXPECT_EQ(answer.headers.at("content-range"), "bytes " + std::to_string(stored->bytes) +
                                                              "-" + std::to_string(kFileSize - 1) +
                                                              "/" + std::to_string(kFileSize));
            EXPECT_EQ(answer.headers.at("etag"), stored->etag);
            EXPECT_EQ(resumed.items()[1].receivedBytes, stored->bytes);
        }
        EXPECT_EQ(end.receivedBytes, fs::file_size(served));
        expectServedFile();
    }
}

}  // namespace
}  // namespace terrane::common
