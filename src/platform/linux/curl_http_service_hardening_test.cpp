// The Linux HTTP service against servers that misbehave (stall, never answer, send without end,
// lie about lengths, flood the head, redirect where they must not) and against a full disk, and
// what it must never put on disk or on the wire for a download.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>

#include "platform/linux/curl_http_service.hpp"
#include "platform/linux/curl_test_support.hpp"
#include "platform/linux/resume_data.hpp"
#include "terrane/http/transfer_limits.hpp"
#include "testing/http_test_server.hpp"
#include "testing/loopback.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::common {
namespace {

namespace fs = std::filesystem;
using test::StatusInbox;
using test::TestFile;

// Short limits for the tests that wait for them; restored afterwards.
class ScopedTransferLimits {
  public:
    explicit ScopedTransferLimits(TransferLimits limits) : saved_(getTransferLimits()) {
        setTransferLimits(limits);
    }
    ~ScopedTransferLimits() { setTransferLimits(saved_); }
    ScopedTransferLimits(const ScopedTransferLimits&) = delete;
    ScopedTransferLimits& operator=(const ScopedTransferLimits&) = delete;

  private:
    TransferLimits saved_;
};

// A socket on 127.0.0.1 that listens with a full queue and never accepts: the kernel drops every
// further connection attempt, so that connecting to it hangs.
class UnacceptingListener {
  public:
    UnacceptingListener() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = test::loopbackAddress(0);
        socklen_t length = sizeof address;
        ::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_.get(), 0);
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        for (auto& filler : fillers_) {
            filler = base::io::FileDescriptor(
                ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            ::connect(filler.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        }
    }

    std::string url() const { return test::loopbackUrl(port_, "/pack"); }

  private:
    base::io::FileDescriptor listener_;
    base::io::FileDescriptor fillers_[3];
    std::uint16_t port_ = 0;
};

// Every regular file below the directory, by path relative to it.
std::set<std::string> filesBelow(const fs::path& directory) {
    std::set<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        if (!entry.is_directory()) {
            files.insert(fs::relative(entry.path(), directory).string());
        }
    }
    return files;
}

class CurlHttpServiceHardeningTest : public test::CurlServiceTest {};

TEST_F(CurlHttpServiceHardeningTest, HostileServersGetAClearErrorAndLeaveNothingElseBehind) {
    server_.serve("/longer-than-body",
                  TestFile{.content = test::testContent(32 * 1024), .announcedLength = 64 * 1024});
    server_.serve("/beyond-cap", TestFile{.content = test::testContent(1024),
                                          .announcedLength = std::size_t{1} << 30});
    server_.serve("/stall", TestFile{.content = test::testContent(64 * 1024),
                                     .stallAfter = 16 * 1024,
                                     .faultyResponses = 1 << 30});
    const UnacceptingListener unaccepting;
    constexpr std::uint64_t kCap = 1024 * 1024;

    struct Row {
        const char* name;
        std::string url;
        HttpRequestErrorType requestError;
        std::string requestMessagePart;
        DownloadErrorCode downloadError;
        std::string downloadMessagePart;
        // The partial file and its resume data stay for a later resume.
        bool keepsPartial;
    };
    const auto timedOut = HttpRequestErrorType::RequestTimedOut;
    const auto connection = HttpRequestErrorType::ConnectionError;
    const auto other = HttpRequestErrorType::OtherError;
    const auto network = DownloadErrorCode::NetworkError;
    const Row rows[] = {
        {"head and 16 KiB, then silence", server_.url("/stall"), timedOut, "too slow", network,
         "Request timed out.", true},
        {"connection accepted, never answered", server_.url("/hold"), timedOut, "too slow", network,
         "Request timed out.", false},
        {"connection never accepted", unaccepting.url(), timedOut, "Failed to connect", network,
         "Request timed out.", false},
        {"endless body without a length", server_.url("/endless"), other,
         "Response body too large.", DownloadErrorCode::SizeExceeded, "limit of 1048576 bytes",
         false},
        {"a length beyond the cap", server_.url("/beyond-cap"), connection, "",
         DownloadErrorCode::SizeExceeded, "limit of 1048576 bytes", false},
        {"a length longer than the body", server_.url("/longer-than-body"), connection,
         "bytes remaining", network, "bytes remaining", true},
        {"a 4 MiB header", server_.url("/huge-head"), other, "Response header too large.", network,
         "Response header too large.", false},
        {"5000 header lines", server_.url("/huge-head?lines=5000"), other,
         "Response header too large.", network, "Response header too large.", false},
        {"a redirect to file:", server_.url("/redirect-to-file"), other, "file", network, "file",
         false},
        {"a redirect loop", server_.url("/redirect-loop"), other, "redirects", network, "redirects",
         false},
    };
    // The first rows stall, so a short window finds them quickly; the others must not depend on
    // the speed of a loaded (or sanitized) machine sending a huge head.
    constexpr std::size_t kStallingRows = 3;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const bool stalls = &row - rows < static_cast<std::ptrdiff_t>(kStallingRows);
        const ScopedTransferLimits limits(TransferLimits{
            .connectTimeout = std::chrono::seconds(1),
            .lowSpeedBytesPerSecond = 1,
            .lowSpeedTime = std::chrono::seconds(stalls ? 1 : 60),
            .maxResponseBytes = 1024 * 1024,
        });
        // Both at once: a stall takes a few seconds to be recognised.
        test::ResponseInbox responses;
        service_->request(HttpRequest(row.url), responses.callback());
        const auto final = download(row.url, false, kCap);
        const auto response = responses.waitFor(1);
        ASSERT_FALSE(response.result.has_value());
        EXPECT_EQ(response.result.error().type, row.requestError);
        EXPECT_NE(response.result.error().message.find(row.requestMessagePart), std::string::npos)
            << response.result.error().message;
        ASSERT_EQ(final.state, DownloadState::Failed);
        EXPECT_EQ(final.error->code, row.downloadError);
        EXPECT_NE(final.error->message.find(row.downloadMessagePart), std::string::npos)
            << final.error->message;
        const std::set<std::string> expected =
            row.keepsPartial ? std::set<std::string>{"out/pack.bin.part", "out/pack.bin.rd"}
                             : std::set<std::string>{};
        EXPECT_EQ(filesBelow(scratch_.path()), expected);
        if (row.keepsPartial) {
            EXPECT_EQ(loadResumeData(DownloadOptions(HttpRequest(row.url), destination_))->bytes,
                      fs::file_size(part()));
        }
        fs::remove(part());
        fs::remove(rd());
    }
}

TEST_F(CurlHttpServiceHardeningTest, TheSizeCapCountsWhatIsAnnouncedAndWhatIsAlreadyHeld) {
    const std::string content = test::testContent(100 * 1024);
    server_.serve("/pack", TestFile{.content = content});
    struct Row {
        const char* name;
        std::uint64_t cap;
        std::size_t heldBytes;  // a partial file with resume data from an earlier attempt
        bool finishes;
        std::size_t requests;
    };
    const Row rows[] = {
        {"exactly the cap", content.size(), 0, true, 1},
        {"one byte beyond the cap", content.size() - 1, 0, false, 1},
        {"a resumed range whose total is beyond the cap", content.size() - 1, 50 * 1024, false, 1},
        {"more held already than the cap", 80 * 1024, 90 * 1024, false, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.heldBytes > 0) {
            test::writeWholeFile(part(), content.substr(0, row.heldBytes));
            ASSERT_TRUE(storeResumeData(destination_, ResumeData{server_.url("/pack"), part(),
                                                                 row.heldBytes, "\"v1\"", ""}));
        }
        const auto before = server_.requestsFor("/pack").size();
        const auto final = download("/pack", true, row.cap);
        EXPECT_EQ(server_.requestsFor("/pack").size() - before, row.requests);
        if (row.finishes) {
            EXPECT_EQ(final.state, DownloadState::Finished);
            EXPECT_EQ(test::readWholeFile(destination_), content);
            fs::remove(destination_);
        } else {
            ASSERT_EQ(final.state, DownloadState::Failed);
            EXPECT_EQ(final.error, (DownloadError{DownloadErrorCode::SizeExceeded,
                                                  "Download exceeds the limit of " +
                                                      std::to_string(row.cap) + " bytes."}));
        }
        EXPECT_EQ(filesBelow(scratch_.path()), std::set<std::string>{});
    }
}

TEST_F(CurlHttpServiceHardeningTest,
       DownloadsAskForTheIdentityEncodingAndRequestsForAnyUnlessTold) {
    struct Row {
        const char* name;
        bool isDownload;
        HttpHeaders headers;
        // The one Accept-Encoding value the server must see; libcurl's own list when empty.
        std::string expected;
    };
    const Row rows[] = {
        {"a plain request", false, {}, ""},
        {"a plain request naming its own", false, {{"Accept-Encoding", "identity"}}, "identity"},
        {"a download", true, {}, "identity"},
        {"a download whose caller asks for gzip", true, {{"accept-encoding", "gzip"}}, "identity"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        HttpRequest request(server_.url("/echo"), row.headers);
        if (row.isDownload) {
            test::StatusInbox inbox;
            service_->download(DownloadOptions(request, destination_), inbox.callback());
            test::waitForFinal(inbox);
        } else {
            fetch(request);
        }
        const auto values = server_.requestsFor("/echo").back().headerValues("accept-encoding");
        ASSERT_EQ(values.size(), 1u);
        if (row.expected.empty()) {
            for (const char* encoding : {"gzip", "deflate", "br"}) {
                EXPECT_NE(values[0].find(encoding), std::string::npos) << values[0];
            }
        } else {
            EXPECT_EQ(values[0], row.expected);
        }
    }
}

TEST_F(CurlHttpServiceHardeningTest, NoFileOfADownloadHoldsTheTokenAndANewTokenStillResumes) {
    const std::string content = test::testContent(256 * 1024, 21);
    TestFile file;
    file.content = content;
    file.dropAfter = 100 * 1024;
    server_.serve("/pack", file);
    const auto urlWith = [&](const std::string& token) {
        return server_.url("/pack?region=harbour&access_token=" + token);
    };
    const auto expectNoToken = [&](const std::string& token) {
        for (const auto& name : filesBelow(scratch_.path())) {
            EXPECT_EQ(test::readWholeFile(scratch_.path() / name).find(token), std::string::npos)
                << name;
        }
    };

    ASSERT_EQ(download(urlWith("first-secret")).state, DownloadState::Failed);
    expectNoToken("first-secret");
    for (const auto& path : {part(), rd()}) {
        EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
                  fs::perms::owner_read | fs::perms::owner_write)
            << path;
    }
    EXPECT_EQ(decodeResumeData(test::readWholeFile(rd()))->url,
              server_.url("/pack?region=harbour"));

    const auto final = download(urlWith("second-secret"), true);
    ASSERT_EQ(final.state, DownloadState::Finished);
    EXPECT_EQ((**final.httpResult).code, 206);
    EXPECT_EQ(server_.requestsFor("/pack").back().header("range"), "bytes=102400-");
    EXPECT_EQ(test::readWholeFile(destination_), content);
    expectNoToken("second-secret");
}

TEST_F(CurlHttpServiceHardeningTest, AFullDiskKeepsThePartialFileAndTheNextAttemptResumes) {
    // A small file system of its own, in a mount namespace of this thread (and of the engine
    // thread, which it starts afterwards): the rest of the machine never sees it.
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        GTEST_SKIP() << "no mount namespace here: " << std::strerror(errno);
    }
    const fs::path disk = scratch_.path() / "out";
    if (::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=128k,mode=0700") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
    }
    // The engine thread must start in the new namespace.
    service_ = std::make_shared<CurlHttpService>();
    const std::string content = test::testContent(1024 * 1024, 22);
    server_.serve("/pack", TestFile{.content = content});

    const auto full = download("/pack");
    ASSERT_EQ(full.state, DownloadState::Failed);
    EXPECT_EQ(full.error,
              (DownloadError{DownloadErrorCode::FileSystemError, "No space left on device"}));
    const auto kept = fs::file_size(part());
    EXPECT_GT(kept, 0u);
    ASSERT_TRUE(loadResumeData(DownloadOptions(HttpRequest(server_.url("/pack")), destination_)));

    ASSERT_EQ(::mount(nullptr, disk.c_str(), nullptr, MS_REMOUNT, "size=4m,mode=0700"), 0)
        << std::strerror(errno);
    const auto resumed = download("/pack", true);
    EXPECT_EQ(resumed.state, DownloadState::Finished);
    EXPECT_EQ(server_.requestsFor("/pack").back().header("range"),
              "bytes=" + std::to_string(kept) + "-");
    EXPECT_EQ(test::readWholeFile(destination_), content);
    service_.reset();
    ::umount2(disk.c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace terrane::common
