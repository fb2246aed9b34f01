// The Linux HTTP service against a test server on 127.0.0.1: what goes out, what comes back,
// downloads that resume, and servers that misbehave (stall, never answer, send without end, lie
// about lengths, flood the head, redirect where they must not) or a full disk.

#include "platform/linux/curl_http_service.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "platform/linux/curl_engine.hpp"
#include "platform/linux/curl_test_support.hpp"
#include "platform/linux/download_transfer.hpp"
#include "platform/linux/linux_user_agent.hpp"
#include "platform/linux/resume_data.hpp"
#include "terrane/http/transfer_limits.hpp"
#include "terrane/util/md5.hpp"
#include "testing/http_test_server.hpp"
#include "testing/loopback.hpp"
#include "testing/private_tmpfs.hpp"
#include "util/digest_cache.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::common {
namespace {

namespace fs = std::filesystem;
using test::ResponseInbox;
using test::StatusInbox;
using test::TestFile;

using enum DownloadState;
using enum DownloadErrorCode;
using enum HttpRequestErrorType;

void waitUntil(const std::function<bool()>& condition) {
    while (!condition()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// A socket on 127.0.0.1 that listens with a full queue and never accepts: the kernel drops every
// further connection attempt, so that connecting to it hangs.
struct UnacceptingListener {
    UnacceptingListener() {
        sockaddr_in address = test::loopbackAddress(0);
        socklen_t length = sizeof address;
        ::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener.get(), 0);
        ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length);
        url = test::loopbackUrl(ntohs(address.sin_port), "/pack");
        for (auto& filler : fillers) {
            filler = base::io::FileDescriptor(
                ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            ::connect(filler.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        }
    }

    base::io::FileDescriptor listener{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    base::io::FileDescriptor fillers[3];
    std::string url;
};

// The service, a test server, and a destination in a scratch directory of its own
// ("out/pack.bin"). The server holds "/echo", "/hold" (answered on release()) and "/r<n>": n
// redirects, then "redirected". A target that starts with "/" is a path there, anything else a
// URL.
class CurlHttpServiceTest : public ::testing::Test {
  protected:
    CurlHttpServiceTest() {
        fs::create_directories(scratch_.path() / "out");
        server_.serve("/echo", TestFile{.content = "echo"});
        server_.serve("/hold", TestFile{.content = "held", .holdHead = true});
        server_.serve("/r0", TestFile{.content = "redirected"});
        for (int n = 1; n <= 11; ++n) {
            server_.serve("/r" + std::to_string(n),
                          TestFile{.status = 302, .headers = {{"Location", redirect(n - 1)}}});
        }
    }
    ~CurlHttpServiceTest() override { setTransferLimits(TransferLimits{}); }
    static std::string redirect(int n) { return "/r" + std::to_string(n); }

    std::string urlOf(const std::string& target) const {
        return target.starts_with("/") ? server_.url(target) : target;
    }

    // The caller asks for gzip, which a download must not pass on: the server's ranges, lengths
    // and tags must describe the file itself.
    std::uint64_t start(const std::string& target, StatusInbox& inbox, bool resume = false,
                        optional<std::uint64_t> maxBytes = nullopt, std::uint64_t timeout = 0,
                        bool recordDigest = false) {
        HttpRequest request(urlOf(target), {{"accept-encoding", "gzip"}});
        request.timeout = timeout;
        DownloadOptions options(request, destination_, resume);
        options.maxBytes = maxBytes;
        options.recordDigest = recordDigest;
        return service_->download(std::move(options), inbox.callback());
    }

    // The outcome of a whole download.
    std::string download(const std::string& target, bool resume = false) {
        StatusInbox inbox;
        start(target, inbox, resume);
        test::waitForFinal(inbox);
        return outcome(inbox);
    }

    bool cancel(std::uint64_t id) { return test::cancel(*service_, id); }

    std::string part() const { return partialFilePathFor(destination_); }
    std::string rd() const { return resumeDataPathFor(destination_); }

    // The latest report of a download in one line: its state, then the bytes so far, the code
    // and bytes of a finished one or the error of a failed one, then the bytes of the first
    // Downloading report, if any. Every report came on the engine thread.
    static std::string outcome(const StatusInbox& inbox) {
        const char* const states[] = {"Pending", "Downloading", "Failed", "Finished"};
        const char* const codes[] = {"FileSystemError", "NetworkError", "SizeExceeded"};
        const auto statuses = inbox.items();
        const auto& last = statuses.back();
        std::string text = states[static_cast<int>(last.state)];
        if (!isFinal(last.state)) {
            text += " " + std::to_string(last.receivedBytes);
        } else if (last.error) {
            text += std::string(" ") + codes[static_cast<int>(last.error->code)] + ": " +
                    last.error->message;
        } else if (last.state == Finished) {
            text += " " + std::to_string((*last.httpResult)->code) + " " +
                    std::to_string(last.receivedBytes) + "/" +
                    std::to_string(last.totalBytes.value_or(0));
        }
        const auto first = std::ranges::find(statuses, Downloading, &DownloadStatus::state);
        if (first != statuses.end()) {
            text += " from " + std::to_string(first->receivedBytes);
        }
        for (const auto thread : inbox.threads()) {
            EXPECT_NE(thread, std::this_thread::get_id());
        }
        return text;
    }

    // The files below the scratch directory besides the destination, each after a space.
    std::string leftovers() const {
        std::string text;
        for (const auto& [name, content] : test::treeContents(scratch_.path())) {
            text += name == "out/pack.bin" ? "" : " " + name;
        }
        return text;
    }

    test::HttpTestServer server_;
    test::TemporaryDirectory scratch_;
    std::string destination_ = (scratch_.path() / "out" / "pack.bin").string();
    std::shared_ptr<CurlHttpService> service_ = std::make_shared<CurlHttpService>();
};

TEST_F(CurlHttpServiceTest, RequestsGoOutAsAskedAndAnswersOfAnyStatusComeBackDecoded) {
    server_.serve("/gzip", TestFile{.content = test::gzipEncode("decoded body"),
                                    .headers = {{"Content-Encoding", "gzip"}}});
    server_.serve("/401", TestFile{.content = "no", .status = 401});
    UAComponents app;
    app.appNameComponent = "Atlas";
    app.appVersionComponent = "2.1";
    const std::string agent = linuxUserAgent(app);
    // Large enough that libcurl would ask the server to confirm it with Expect, unless told to.
    const std::string body(2 * 1024 * 1024, 'b');
    using enum HttpMethod;
    const char* const sent[] = {"GET", "HEAD", "POST"};  // by HttpMethod
    // An answer of status 200 unless the path names another.
    const struct {
        HttpMethod method;
        std::string path;
        // Only the exact key "User-Agent" suppresses the generated one, and not when empty.
        HttpHeaders headers;
        std::vector<std::string> agents;
        std::string answer;
    } rows[] = {
        {Post, "/echo", {{"content-type", "a/b"}, {"x-other", "a, b"}}, {agent}, "echo"},
        {Post, "/401", {{"content-type", "a/b"}, {"expect", "100-continue"}}, {agent}, "no"},
        {Head, "/echo", {{"User-Agent", "mine"}, {"accept-encoding", "identity"}}, {"mine"}, ""},
        // Ten redirects are followed.
        {Get, redirect(10), {{"User-Agent", ""}}, {agent}, "redirected"},
        {Get, "/gzip", {{"user-agent", "mine/2"}}, {agent, "mine/2"}, "decoded body"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        HttpRequest request(server_.url(row.path), row.headers, app);
        request.method = row.method;
        request.body.assign(body.begin(), body.end());  // sent by POST only
        request.keepCompression = true;                 // ignored
        ResponseInbox inbox;
        service_->request(HttpRequest(request), inbox.callback());
        const auto response = inbox.waitFor(1);
        ASSERT_TRUE(response.result.has_value());
        EXPECT_EQ(response.result->code, row.path == "/401" ? 401 : 200);
        EXPECT_EQ(test::bodyText(response), row.answer);
        const auto received = server_.requestsFor(row.path).back();
        EXPECT_EQ(received.method, sent[static_cast<int>(row.method)]);
        EXPECT_TRUE(received.body == (row.method == HttpMethod::Post ? body : ""));
        // A server that ignores Expect must not cost a round of waiting.
        if (!row.headers.contains("expect")) {
            EXPECT_EQ(received.header("expect"), nullopt);
        }
        // The caller's Accept-Encoding goes out instead of libcurl's, not beside it.
        EXPECT_EQ(received.headers.count("accept-encoding"), 1u);
        std::vector<std::string> agents;
        for (auto [at, end] = received.headers.equal_range("user-agent"); at != end; ++at) {
            agents.push_back(at->second);
        }
        EXPECT_THAT(agents, testing::UnorderedElementsAreArray(row.agents));
        for (const auto& [name, value] : row.headers) {
            if (name != "User-Agent" && name != "user-agent") {
                EXPECT_EQ(received.header(name), value);
            }
        }
    }
}

// A callback may cancel another request and start a new one; both take effect.
TEST_F(CurlHttpServiceTest, CallbacksMayCancelAndStartRequests) {
    ResponseInbox held;
    const auto heldId = service_->request(HttpRequest(server_.url("/hold")), held.callback());
    waitUntil([&] { return server_.heldNow() == 1; });
    ResponseInbox started;
    service_->request(HttpRequest(server_.url("/echo")), [&](HttpResponse&&) {
        service_->cancelRequest(heldId, [](bool) {});
        service_->request(HttpRequest(server_.url("/missing")), started.callback());
    });
    EXPECT_EQ(held.waitFor(1).result.error().type, RequestCancelled);
    EXPECT_EQ(started.waitFor(1).result->code, 404);
}

// Requests beyond those a host gets connections for, or beyond those the engine admits at once,
// wait their turn: each still runs, and one cancelled while it waits is answered as any other.
TEST_F(CurlHttpServiceTest, RequestsBeyondTheCapsWaitTheirTurnAndCanBeCancelled) {
    service_->setMaxRequestsPerHost(4);
    const std::size_t requests = CurlEngine::kMaxAdmittedRequests + 20;
    ResponseInbox inbox;
    std::uint64_t last = 0;
    for (std::size_t index = 0; index < requests; ++index) {
        last = service_->request(HttpRequest(server_.url("/hold")), inbox.callback());
    }
    EXPECT_TRUE(cancel(last));
    EXPECT_EQ(inbox.waitFor(1).result.error().type, RequestCancelled);
    waitUntil([&] { return server_.heldNow() == 4; });
    // Room for connections beyond the cap to show up, if the cap did not hold.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(server_.heldNow(), 4);
    // Released batch by batch, the waiting ones go through in turn.
    while (inbox.items().size() < requests) {
        server_.release();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(std::ranges::count_if(inbox.items(),
                                    [](const HttpResponse& response) {
                                        return response.result &&
                                               test::bodyText(response) == "held";
                                    }),
              static_cast<std::ptrdiff_t>(requests - 1));
}

TEST_F(CurlHttpServiceTest, DownloadsReplaceTheDestinationOnlyWithTheFileAndResumeOnlyTheSame) {
    const std::string content = test::testContent(64 * 1024, 9);
    const std::string older = test::testContent(64 * 1024, 8);
    const std::string cap = "Failed SizeExceeded: Download exceeds the limit of 65535 bytes.";
    fs::create_directories(scratch_.path() / "occupied" / "inside");
    const auto missing = (scratch_.path() / "missing" / "pack.zip").string();
    struct Row {
        const char* name;
        TestFile file;  // served at /<row>/pack
        // A partial file from before, with resume data (tag "v1") for this path below /<row>,
        // of heldBytes or else all of its bytes.
        std::string held;
        optional<std::uint64_t> cap;
        // The outcome, the range of each request, the files left besides the destination, and
        // after "= " what the destination holds ("content" for the file, "previous" for what it
        // held before).
        std::string expected;
        std::string heldFor = "/pack";
        optional<std::uint64_t> heldBytes{};
        std::string destination{};  // instead of out/pack.bin
    };
    const TestFile file{.content = content};
    const TestFile failing{.content = content + content, .status = 500};
    const TestFile changed{.content = content, .etag = "\"v2\""};
    const TestFile untagged{.content = content, .etag = ""};
    const TestFile refusing{.content = "busy", .status = 503};
    const std::string whole = "Finished 200 65536/65536 from 0 ";
    const Row rows[] = {
        {"a file as large as the cap", file, "", 65536, whole + "[-;] = content"},
        {"a large error body", failing, "", nullopt,
         "Finished 500 65536/65536 from 0 [-;] = previous"},
        {"a file one byte beyond the cap", file, "", 65535, cap + " from 0 [-;] = previous"},
        {"a resumed range whose total is beyond the cap", file, content.substr(0, 1000), 65535,
         cap + " [bytes=1000-;] = previous"},
        // As after a kill: the data was stored when the head came, the partial file grew later.
        {"bytes written after the data was stored", file, content.substr(0, 40000), nullopt,
         "Finished 206 65536/65536 from 40000 [bytes=40000-;] = content", "/pack", 0},
        {"more held already than the cap", file, content, 65535, cap + " [] = previous"},
        {"a changed file", changed, older.substr(0, 1000), nullopt,
         whole + "[bytes=1000-;] = content"},
        {"a shorter file under the same tag", file, older + "0123456789", nullopt,
         whole + "[bytes=65546-;-;] = content"},
        {"data of another URL", untagged, "partial", nullopt,
         whole + "[-;] out/pack.bin.rd = content", "/other"},
        // The partial file is untouched, so the data is put back for a later attempt.
        {"a refusal", refusing, "partial", nullopt,
         "Finished 503 4/4 [bytes=7-;] out/pack.bin.part out/pack.bin.rd = previous"},
        // The server is asked only once the destination's directory proved writable.
        {"a missing directory", untagged, "", nullopt,
         "Failed FileSystemError: " + missing + " is not writable. [] = ", "/pack", nullopt,
         missing},
        // The rename at the end fails; without validators nothing is kept to resume.
        {"a directory in the way", untagged, "", nullopt,
         "Failed FileSystemError: Is a directory from 0 [-;] = ", "/pack", nullopt,
         (scratch_.path() / "occupied").string()},
    };
    const std::string out = destination_;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string prefix = "/" + std::to_string(&row - rows);
        const std::string path = prefix + "/pack";
        server_.serve(path, row.file);
        test::writeWholeFile(out, "previous");
        destination_ = row.destination.empty() ? out : row.destination;
        const ResumeData stored{server_.url(prefix + row.heldFor), part(),
                                row.heldBytes.value_or(row.held.size()), "\"v1\"", ""};
        if (!row.held.empty()) {
            test::writeWholeFile(part(), row.held);
            ASSERT_TRUE(storeResumeData(destination_, stored));
        }
        // Every other row asks for the digest, so that files are seen both ways.
        const bool digest = (&row - rows) % 2 == 0;
        StatusInbox inbox;
        start(path, inbox, true, row.cap, 0, digest);
        const auto final = test::waitForFinal(inbox);
        std::string text = outcome(inbox) + " [";
        for (const auto& request : server_.requestsFor(path)) {
            text += request.header("range").value_or("-") + ";";
            EXPECT_EQ(request.header("if-range"),
                      request.header("range") ? optional<std::string>("\"v1\"") : nullopt);
            EXPECT_EQ(request.header("accept-encoding"), "identity");
        }
        const std::string now = test::readWholeFile(destination_);
        EXPECT_EQ(text + "]" + leftovers() + " = " + (now == content ? "content" : now),
                  row.expected);
        if (final.httpResult && *final.httpResult) {
            // The head of the final answer, with the body only of an error.
            const auto& head = **final.httpResult;
            EXPECT_EQ(
                std::string(head.data.begin(), head.data.end()),
                head.code < 300 ? "" : row.file.content.substr(0, DownloadTransfer::kMaxErrorBody));
        }
        // The digest taken while the bytes were written, which md5File answers with.
        struct stat status {};
        if (row.expected.starts_with("Finished 20") && ::stat(out.c_str(), &status) == 0) {
            EXPECT_EQ(util::DigestCache::instance().find(util::FileIdentity::of(status)),
                      digest ? optional(util::md5String(now)) : nullopt);
        }
        if (fs::exists(rd())) {
            EXPECT_EQ(decodeResumeData(test::readWholeFile(rd())), stored);
        }
        fs::remove(part());
        fs::remove(rd());
    }
}

TEST_F(CurlHttpServiceTest, ReleasingTheServiceEndsTransfersWithoutCallbacksAndKeepsResumeData) {
    server_.serve("/pack",
                  TestFile{.content = test::testContent(64 * 1024), .stallAfter = 32 * 1024});
    std::atomic<int> calls{0};
    for (int index = 0; index < 3; ++index) {
        service_->request(HttpRequest(server_.url("/hold")), [&](HttpResponse&&) { ++calls; });
    }
    StatusInbox inbox;
    start("/pack", inbox);
    // Cancelled before any bytes came, a download stores nothing and the answer is false.
    StatusInbox cancelled;
    const auto id =
        service_->download(DownloadOptions(HttpRequest(server_.url("/hold")), destination_ + ".2"),
                           cancelled.callback());
    test::waitForBytes(inbox, 32 * 1024);
    waitUntil([&] { return server_.heldNow() == 5; });
    EXPECT_FALSE(cancel(id));
    const auto reports = inbox.items().size();
    service_.reset();
    server_.release();
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(inbox.items().size(), reports);
    EXPECT_EQ(outcome(cancelled), "Downloading 0 from 0");
    EXPECT_EQ(leftovers(), " out/pack.bin.part out/pack.bin.rd");
    EXPECT_EQ(decodeResumeData(test::readWholeFile(rd()))->bytes, 32 * 1024);
    EXPECT_EQ(fs::file_size(part()), 32 * 1024);
}

TEST_F(CurlHttpServiceTest, ACancelInItsOwnProgressCallbackKeepsResumeDataWithoutTheToken) {
    // Beyond the bytes gathered for one write, so that the resumed part is written in pieces.
    const std::string content = test::testContent(3 * 1024 * 1024, 21);
    const std::string date = "Tue, 01 Oct 2024 10:00:00 GMT";
    server_.serve("/pack",
                  TestFile{.content = content, .lastModified = date, .stallAfter = 128 * 1024});
    const auto urlWith = [&](const std::string& token) {
        return server_.url("/pack?region=harbour&access_token=" + token);
    };
    StatusInbox inbox;
    test::AnswerInbox answers;
    std::atomic<std::uint64_t> id{0};
    bool cancelled = false;  // engine thread only
    auto record = inbox.callback();
    CurlHttpService* service = service_.get();
    id = service->download(DownloadOptions(HttpRequest(urlWith("first-secret")), destination_),
                           [&](DownloadStatus&& status) {
                               const bool stalled = status.receivedBytes == 128 * 1024;
                               record(std::move(status));
                               if (stalled && !cancelled) {
                                   cancelled = true;
                                   // Written as soon as the head of a resumable answer came.
                                   EXPECT_TRUE(fs::exists(rd()));
                                   service->cancelRequest(id, answers.callback());
                                   // Answered before the call returned.
                                   EXPECT_EQ(answers.items().size(), 1u);
                               }
                           });
    EXPECT_TRUE(answers.waitFor(1));
    server_.release();
    EXPECT_EQ(
        decodeResumeData(test::readWholeFile(rd())),
        (ResumeData{server_.url("/pack?region=harbour"), part(), 128 * 1024, "\"v1\"", date}));
    for (const auto& path : {part(), rd()}) {
        EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
                  fs::perms::owner_read | fs::perms::owner_write)
            << path;
    }

    EXPECT_EQ(download(urlWith("second-secret"), true), "Finished 206 3145728/3145728 from 131072");
    EXPECT_EQ(test::readWholeFile(destination_), content);
    // Nothing came after the cancel.
    EXPECT_EQ(outcome(inbox), "Downloading 131072 from 0");
}

TEST_F(CurlHttpServiceTest, HostileServersGetAClearErrorAndLeaveNothingElseBehind) {
    const UnacceptingListener unaccepting;
    TestFile manyLines{.content = "huge"};
    for (int line = 0; line < 5000; ++line) {
        manyLines.headers.emplace_back("X-Padding-" + std::to_string(line), std::string(100, 'p'));
    }
    const auto always = 1 << 30;
    const std::string kilobytes64 = test::testContent(64 * 1024);
    // How a download ends when its request timed out, or went beyond the cap.
    const std::string timedOut = " / Failed NetworkError: Request timed out. from 0";
    const std::string beyond =
        " / Failed SizeExceeded: Download exceeds the limit of 1048576 bytes. from 0";
    const std::string tooLarge =
        "OtherError: Response header too large. / Failed NetworkError: Response header too large. "
        "from 0";
    const std::string kept = " out/pack.bin.part out/pack.bin.rd";
    struct Row {
        std::string target;  // a path (served the file, if any) or a URL
        optional<TestFile> file;
        // The request's error, then the download's outcome and the files left: a pattern.
        std::string expected;
        std::uint64_t timeout = 0;  // of the request itself, in seconds
    };
    const Row rows[] = {
        // Head and 16 KiB, then silence: the partial file and its resume data stay.
        {"/stall",
         TestFile{.content = kilobytes64, .stallAfter = 16 * 1024, .faultyResponses = always},
         "RequestTimedOut: .*too slow.*" + timedOut + kept},
        // The connection never accepted.
        {unaccepting.url, nullopt, "RequestTimedOut: Failed to connect.*" + timedOut},
        // No head within the request's own timeout, while the engine serves others.
        {"/hold", nullopt, "RequestTimedOut: .*timed out after.*" + timedOut, 1},
        // A body that decodes to more than the cap, whatever its length.
        {"/bomb",
         TestFile{.content = test::gzipEncode(std::string(2 * 1024 * 1024, 'z')),
                  .headers = {{"Content-Encoding", "gzip"}}},
         "OtherError: Response body too large." + beyond},
        // A length beyond the cap.
        {"/beyond", TestFile{.content = test::testContent(2 * 1024 * 1024)},
         "OtherError: Response body too large." + beyond},
        // A body cut off before its length: what came stays.
        {"/shorter",
         TestFile{.content = kilobytes64,
                  .headers = {{"Content-Encoding", "identity"}},
                  .dropAfter = 32 * 1024,
                  .faultyResponses = always},
         "ConnectionError: .*bytes remaining.* / Failed NetworkError: .*bytes remaining.*" + kept},
        // A compressed body cut off. Decoded bytes have no place in the server's ranges: nothing
        // is kept to resume.
        {"/gzip",
         TestFile{.content = test::gzipEncode(kilobytes64),
                  .headers = {{"Content-Encoding", "gzip"}},
                  .dropAfter = 16 * 1024,
                  .faultyResponses = always},
         "ConnectionError: .* / Failed NetworkError: .* from 0"},
        // 5000 header lines.
        {"/lines", manyLines, tooLarge},
        // Eleven redirects: a loop ends the same way.
        {redirect(11), {}, "OtherError: .*redirects.* / Failed NetworkError: .*redirects.*"},
        // Only http and https are fetched.
        {"file:///etc/hostname", {}, "OtherError: .* / Failed NetworkError: .*"},
    };
    const char* const types[] = {"ConnectionError", "SSLError", "RequestCancelled",
                                 "RequestTimedOut", "Reserved", "OtherError"};
    // The first rows stall, so a short window finds them quickly; the others must not depend on
    // the speed of a loaded (or sanitized) machine sending a huge head.
    constexpr std::ptrdiff_t kStallingRows = 2;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        if (row.file) {
            server_.serve(row.target, *row.file);
        }
        setTransferLimits(TransferLimits{
            .connectTimeout = std::chrono::seconds(1),
            .lowSpeedBytesPerSecond = 1,
            .lowSpeedTime = std::chrono::seconds(&row - rows < kStallingRows ? 1 : 60),
            .maxResponseBytes = 1024 * 1024,
        });
        // Both at once: a stall takes a few seconds to be recognised. The download takes its digest
        // as it goes, so that a transfer given up mid-way also stops the digest's thread.
        HttpRequest request(urlOf(row.target));
        request.timeout = row.timeout;
        ResponseInbox responses;
        service_->request(std::move(request), responses.callback());
        StatusInbox inbox;
        start(row.target, inbox, false, 1024 * 1024, row.timeout, true);
        test::waitForFinal(inbox);
        const auto result = responses.waitFor(1).result;
        ASSERT_FALSE(result.has_value());
        EXPECT_THAT(std::string(types[static_cast<int>(result.error().type)]) + ": " +
                        result.error().message + " / " + outcome(inbox) + leftovers(),
                    testing::MatchesRegex(row.expected));
        fs::remove(part());
        fs::remove(rd());
    }
}

TEST_F(CurlHttpServiceTest, AFullDiskKeepsThePartialFileAndTheNextAttemptResumes) {
    // A small file system that this thread sees, and the engine thread it starts afterwards.
    const fs::path disk = scratch_.path() / "out";
    const test::PrivateTmpfs tmpfs(disk, "size=128k,mode=0700");
    if (!tmpfs.mounted()) {
        GTEST_SKIP() << "this process cannot mount a file system of its own";
    }
    // The engine thread must start in the new namespace.
    service_ = std::make_shared<CurlHttpService>();
    const std::string content = test::testContent(1024 * 1024, 22);
    server_.serve("/pack", TestFile{.content = content});

    EXPECT_EQ(download("/pack"), "Failed FileSystemError: No space left on device from 0");
    const auto kept = fs::file_size(part());
    EXPECT_GT(kept, 0u);

    ASSERT_EQ(::mount(nullptr, disk.c_str(), nullptr, MS_REMOUNT, "size=4m,mode=0700"), 0)
        << std::strerror(errno);
    EXPECT_EQ(download("/pack", true), "Finished 206 1048576/1048576 from " + std::to_string(kept));
    EXPECT_EQ(test::readWholeFile(destination_), content);
    service_.reset();
}

}  // namespace
}  // namespace terrane::common
