// The Linux HTTP service against a real nginx on loopback: downloads cut off mid-way (cancelled, or
// the server killed while the file changed) resume to the served file with nginx's validators, and
// the result carries nginx's Cache-Control.

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
    // 2 MiB/s per connection at "/slow/": the 2 MiB file takes a second, long enough to cut it.
    NginxServer nginx(served.parent_path(), scratch.path() / "nginx", "32k");
    for (const bool killed : {false, true}) {
        SCOPED_TRACE(killed ? "killed while the file changed" : "cancelled");
        StatusInbox first;
        const auto id = service->download(
            DownloadOptions(HttpRequest(nginx.url("/slow/pack.bin")), destination),
            first.callback());
        test::waitForBytes(first, 256 * 1024);
        if (killed) {
            nginx.kill();
            EXPECT_EQ(test::waitForFinal(first).error->code, DownloadErrorCode::NetworkError);
        } else {
            ASSERT_TRUE(test::cancel(*service, id));
        }
        const auto stored = decodeResumeData(test::readWholeFile(resumeDataPathFor(destination)));
        ASSERT_TRUE(stored);
        EXPECT_EQ(stored->bytes, fs::file_size(partialFilePathFor(destination)));
        if (killed) {
            // nginx's ETag is made of the modification time and the size: both change.
            test::writeWholeFile(served, test::testContent(kFileSize / 2, 12));
            fs::last_write_time(served, fs::last_write_time(served) + std::chrono::seconds(5));
            nginx.restart();
        }

        StatusInbox resumed;
        service->download(
            DownloadOptions(HttpRequest(nginx.url("/slow/pack.bin")), destination, true),
            resumed.callback());
        const auto end = test::waitForFinal(resumed);
        ASSERT_EQ(end.state, DownloadState::Finished);
        EXPECT_EQ((*end.httpResult)->code, killed ? 200 : 206);
        EXPECT_EQ((*end.httpResult)->headers.at("cache-control"), "max-age=3600");
        EXPECT_EQ(util::md5File(destination), util::md5File(served));
        EXPECT_FALSE(fs::exists(resumeDataPathFor(destination)));
        EXPECT_FALSE(fs::exists(partialFilePathFor(destination)));
    }
}

}  // namespace
}  // namespace terrane::common
