#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "testing/pack_lifecycle_fixture.hpp"
#include "testing/private_tmpfs.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
namespace fs = std::filesystem;

class PackDownloadTest : public test::PackLifecycleTest {
  protected:
    static std::string errored(const std::string& error, std::uint64_t bytes = 0) {
        return "onErrored maps/1.tmp bytes=" + std::to_string(bytes) + " error=" + error;
    }
    const std::string corrupt = errored("Corrupt, message=File doesn't have expected size");
};

TEST_F(PackDownloadTest, AFullDownloadGoesFromPendingThroughVerifyingToAvailableOnce) {
    EXPECT_EQ(start(), "onInitialized | onIdle");
    downloadPack();
    EXPECT_EQ(settled(), "onPending maps/1.tmp bytes=0");
    auto transfer = http->nextDownload();
    EXPECT_EQ(transfer.url(), packURL);
    EXPECT_TRUE(transfer.resume());
    EXPECT_EQ(transfer.options().maxBytes, content.size());
    EXPECT_TRUE(transfer.options().recordDigest);

    transfer.progress(0);
    transfer.progress(20, content.size());
    EXPECT_EQ(settled(), "onDownloading maps/1.tmp bytes=0 | onDownloading maps/1.tmp bytes=20");
    const auto before = fromNow(0ms);
    transfer.finish(content, 200, {{"Cache-Control", "max-age=3600"}, {"ETag", "\"v1\""}});
    EXPECT_EQ(settled(), "onVerifying maps/1.tmp bytes=20 | onAvailable maps/1 bytes=38 | onIdle");
    EXPECT_EQ(packFiles(), "1 1.json");
    const auto stored = storedHeaders();
    EXPECT_GE(stored.expires, before + 1h);
    EXPECT_EQ(stored,
              (OfflineDataPackHeaders{stored.expires, 3600, "\"v1\"", content.size(), true, true}));
}

TEST_F(PackDownloadTest, EveryFailedTransferLeavesThePackErroredWithItsMessage) {
    const std::string masked = baseURL + "/offline-data/v1/maps.bin?access_token=***";
    const std::string errorBody = R"({"message": "try )" + packURL + R"("})";
    const struct {
        std::function<void(const test::FakeDownload&)> answer;
        std::string error;
    } rows[] = {
        {[](auto& d) { d.fail(DownloadErrorCode::FileSystemError, "/x is not writable."); },
         "Filesystem, message=/x is not writable."},
        {[](auto& d) { d.report(DownloadState::Failed); }, "Connection, message=Download failed"},
        {[](auto& d) {
             d.report(DownloadState::Finished,
                      unexpected(HttpRequestError{HttpRequestErrorType::SSLError, "rejected"}));
         },
         "Connection, message=rejected"},
        // Messages may quote the request URL; the token in it is masked.
        {[&](auto& d) {
             d.report(DownloadState::Finished,
                      HttpResponseData{{}, 503, HttpBody(errorBody.begin(), errorBody.end())});
         },
         "Server, message=HTTP Error 503: try " + masked},
        {[&](auto& d) { d.fail(DownloadErrorCode::NetworkError, "at " + packURL); },
         "Connection, message=at " + masked},
    };
    start();
    for (const auto& row : rows) {
        row.answer(downloadInFlight());
        EXPECT_EQ(settled(), errored(row.error) + " | onIdle");
    }
}

// A 206 and a 204 count as success. Only a corrupt pack is downloaded again without resuming.
TEST_F(PackDownloadTest, TheEndOfADownloadDecidesHowTheNextOneStarts) {
    start();
    downloadInFlight().finish(content.substr(1), 206);  // one byte short
    EXPECT_EQ(settled(), "onVerifying maps/1.tmp bytes=0 | " + corrupt + " | onIdle");
    auto fresh = downloadInFlight();
    EXPECT_FALSE(fresh.resume());
    fresh.fail(DownloadErrorCode::NetworkError, "lost");
    settle();
    auto resumed = downloadInFlight();
    EXPECT_TRUE(resumed.resume());
    resumed.finish(content, 204);
    EXPECT_EQ(settled(), "onVerifying maps/1.tmp bytes=0 | onAvailable maps/1 bytes=38 | onIdle");
}

TEST_F(PackDownloadTest, FilesThatCannotBeWrittenStopThePackWithAFilesystemError) {
    const std::string pending = "onPending maps/1.tmp bytes=0 | ";
    const struct {
        std::string occupied;  // a file in the way, relative to the root
        std::string expected;
    } rows[] = {
        {"region-a",
         "onErrored maps region-a/3 path= bytes=0 error=Filesystem, message=Not a directory | "
         "onIdle"},
        {"region-a/3/maps/1.json/x",
         pending + errored("Filesystem, message=Is a directory") + " | onIdle"},
        // The download counted before this failure is never given back: no more onIdle.
        {"region-a/3/maps",
         pending + errored("Filesystem, message=Could not create download directory")},
    };
    start();
    for (const auto& row : rows) {
        fs::remove_all(tree.root() / "region-a");
        tree.writeFile(row.occupied, "in the way");
        downloadPack();
        EXPECT_EQ(settled(), row.expected);
        EXPECT_THAT(http->downloads(), IsEmpty());
    }
}

TEST_F(PackDownloadTest, APackStartsOnlyIfTheFreeSpaceAndThePartialFileHoldItsBytes) {
    // Its free space changes with nothing but what this test writes there.
    const test::PrivateTmpfs tmpfs(directory.path(), "size=16m");
    if (!tmpfs.mounted()) {
        GTEST_SKIP() << "this process cannot mount a file system of its own";
    }
    start();
    // A sparse partial file holds the bytes it stands for without taking the room; with them, a
    // pack that needs exactly the free space starts.
    const std::uint64_t held = std::uint64_t{1} << 30;
    fs::create_directories(partialFile().parent_path());
    std::ofstream{partialFile()};
    fs::resize_file(partialFile(), held);
    auto exact = region();
    tree.writeMetadata("3", exact);  // written again in place before the free space is read
    exact.mapPack->bytes = fs::space(directory.path()).available + held;
    (*worker)->downloadPack(maps, std::move(exact));
    auto huge = region();
    huge.id = "region-b";
    huge.mapPack->bytes = std::uint64_t{1} << 62;
    (*worker)->downloadPack(maps, std::move(huge));
    EXPECT_THAT(settled(), MatchesRegex(".*error=Filesystem, message=Not enough disk space: "
                                        "4611686018427387904 bytes needed, [0-9]+ bytes "
                                        "available.*"));
    EXPECT_THAT(http->downloads(), SizeIs(1u));
    worker.reset();  // lets go of the lock file, so that the tmpfs can go
}

TEST_F(PackDownloadTest, MoreBytesThanThePackHasEndTheDownloadAsCorruptAndLeaveNoFile) {
    const std::function<void(const test::FakeDownload&)> overflows[] = {
        [this](auto& transfer) { transfer.progress(content.size() + 1); },
        [](auto& transfer) { transfer.fail(DownloadErrorCode::SizeExceeded, "too long"); },
    };
    start();
    for (const auto& overflow : overflows) {
        auto transfer = downloadInFlight();
        for (const auto& file : {downloadFile(), partialFile(), resumeFile()}) {
            tree.writeFile(file, content + "and more");
        }
        overflow(transfer);
        EXPECT_EQ(settled(), corrupt + " | onIdle");
        EXPECT_EQ(packFiles(), "1.json");
    }
    // The transfer that did not stop by itself was cancelled.
    EXPECT_EQ(http->nextCancellation().id(), http->downloads().front().id());
}

TEST_F(PackDownloadTest, ARepublishedRevisionIsFetchedAndCheckedByItsNewDescription) {
    start();
    downloadInFlight().finish(content + " of old");
    settle();
    const std::string republished = "the bytes of the republished pack";
    auto described = region();
    described.mapPack->url = "terrane://offline-data/maps-v2.bin";
    described.mapPack->bytes = republished.size();
    described.mapPack->md5_checksum = util::md5String(republished);
    (*worker)->downloadPack(maps, OfflineDataRegionMetadata(described));
    settle();
    auto transfer = http->nextDownload();
    EXPECT_EQ(transfer.url(), baseURL + "/offline-data/v1/maps-v2.bin?access_token=tk");
    transfer.finish(republished);
    settle();
    // An Available pack keeps the description its file was checked by.
    downloadPack();
    settle();
    const auto& stored = (*worker)->getRegions().at({"region-a", 3});
    EXPECT_EQ(stored.mapsHolder.status(), OfflineDataPackStatus::Available);
    EXPECT_EQ(stored.metadata.mapPack, described.mapPack);
}

// A report that arrives at shutdown is stored, unverified, for the next start to check (as the
// verification tests show); no new exchange starts.
TEST_F(PackDownloadTest, AtShutdownAFinalReportIsStoredUnverifiedAndNoNewExchangeStarts) {
    start();
    downloadInFlight().finish(content);
    worker->beginShutdown();
    EXPECT_EQ(settled(), "onVerifying maps/1.tmp bytes=0 | onIdle");
    EXPECT_FALSE(storedHeaders().verified);  // the record vouches for nothing unchecked

    startExpired("\"e\"");
    worker->beginShutdown();
    downloadPack();
    EXPECT_EQ(settled(), log("Skipped download of maps pack of revision 3 of offline region "
                             "'region-a': The offline service is shutting down") +
                             " | onIdle");
}

}  // namespace
}  // namespace terrane::common
