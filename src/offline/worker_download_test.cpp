#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "offline/offline_service_worker.hpp"
#include "offline/offline_storage.hpp"
#include "offline/worker_thread.hpp"
#include "terrane/offline/offline_service.hpp"
#include "testing/pack_lifecycle_fixture.hpp"
#include "util/file_io.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
namespace fs = std::filesystem;

class PackDownloadTest : public test::PackLifecycleTest {
  protected:
    // Asks for the pack again after a failure and returns the new download.
    test::FakeDownload restart() {
        downloadPack();
        settle();
        EXPECT_THAT(newLines(), ElementsAre(line("onPending", downloadFile(), 0)));
        return http->nextDownload();
    }

    std::string errored(const std::string& error, std::uint64_t bytes = 0) const {
        return line("onErrored", downloadFile(), bytes, error);
    }
};

TEST_F(PackDownloadTest, AFullDownloadGoesFromPendingThroughVerifyingToAvailable) {
    start();
    EXPECT_THAT(newLines(), ElementsAre("onInitialized", "onIdle"));

    downloadPack();
    settle();
    // No onIdle: the download is outstanding.
    EXPECT_THAT(newLines(), ElementsAre(line("onPending", downloadFile(), 0)));
    auto transfer = http->nextDownload();
    EXPECT_EQ(transfer.url(), packURL);
    EXPECT_EQ(transfer.request().method, HttpMethod::Get);
    EXPECT_THAT(transfer.request().headers, IsEmpty());
    EXPECT_EQ(transfer.request().uaComponents, UAComponents{});
    EXPECT_EQ(transfer.localPath(), downloadFile().string());
    EXPECT_TRUE(transfer.resume());
    EXPECT_EQ(transfer.options().maxBytes, content.size());
    EXPECT_EQ(base::io::readFile(tree.revisionDirectory("region-a", "3") / "metadata.json"),
              serializeMetadata(region()));

    transfer.start();
    transfer.progress(10, content.size());
    transfer.progress(20, content.size());
    settle();
    EXPECT_THAT(newLines(), ElementsAre(line("onDownloading", downloadFile(), 0),
                                        line("onDownloading", downloadFile(), 10),
                                        line("onDownloading", downloadFile(), 20)));

    const auto before = fromNow(0ms);
    transfer.finish(content, 200, {{"Cache-Control", "max-age=3600"}, {"ETag", "\"v1\""}});
    settle();
    const auto after = fromNow(0ms);
    EXPECT_THAT(newLines(), ElementsAre(line("onVerifying", downloadFile(), 20),
                                        line("onAvailable", packFile(), content.size()), "onIdle"));
    EXPECT_EQ(base::io::readFile(packFile()), content);
    EXPECT_FALSE(fs::exists(downloadFile()));
    const auto stored = storedHeaders();
    EXPECT_EQ(stored.etag, "\"v1\"");
    EXPECT_EQ(stored.max_age, 3600);
    EXPECT_GE(stored.expires, before + 1h);
    EXPECT_LE(stored.expires, after + 1h);
    EXPECT_EQ(stored.bytes, content.size());
    EXPECT_TRUE(stored.complete);
    EXPECT_TRUE(stored.verified);
}

TEST_F(PackDownloadTest, ProgressKeepsTheGenerationSoEveryReportOfTheDownloadCounts) {
    start();
    downloadPack();
    settle();
    newLines();
    const auto generation = holder().generation();
    auto transfer = http->nextDownload();
    for (std::uint64_t received : {1u, 2u, 3u}) {
        transfer.progress(received);
        settle();
        EXPECT_EQ(holder().generation(), generation);
        EXPECT_EQ(holder().status(), OfflineDataPackStatus::Downloading);
        EXPECT_EQ(holder().bytes(), received);
    }
    EXPECT_THAT(newLines(), SizeIs(3u));
}

TEST_F(PackDownloadTest, ThePendingReportAloneChangesNothing) {
    start();
    downloadPack();
    settle();
    newLines();
    http->nextDownload().pending();
    settle();
    EXPECT_THAT(newLines(), IsEmpty());
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Pending);
}

TEST_F(PackDownloadTest, APackUnderWayOrAvailableIsNotDownloadedAgain) {
    start();
    downloadPack();
    settle();
    downloadPack();  // Pending
    http->nextDownload().progress(1);
    settle();
    downloadPack();  // Downloading
    settle();
    EXPECT_THAT(http->downloads(), SizeIs(1u));
    http->downloads()[0].finish(content);
    settle();
    newLines();

    downloadPack();  // Available: the only trace is the idle report of the busy period
    settle();
    EXPECT_THAT(newLines(), ElementsAre("onIdle"));
    EXPECT_THAT(http->downloads(), SizeIs(1u));
}

TEST_F(PackDownloadTest, AskingForAPackBeingVerifiedChangesNothing) {
    storeUnverified(content);
    worker = std::make_unique<test::ManualWorker>(directory.path().string(), options,
                                                  OfflineServiceObservers{recorder});
    ASSERT_EQ(holder().status(), OfflineDataPackStatus::Verifying);
    downloadPack();  // before the queued verification runs
    settle();
    EXPECT_THAT(http->downloads(), IsEmpty());
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Available);
}

TEST_F(PackDownloadTest, FailedTransfersLeaveThePackErroredAndTheServiceIdle) {
    start();
    newLines();
    downloadPack();
    settle();
    newLines();

    http->nextDownload().fail(DownloadErrorCode::NetworkError, "The network connection was lost");
    settle();
    EXPECT_THAT(
        newLines(),
        ElementsAre(errored("Connection, message=The network connection was lost"), "onIdle"));

    restart().fail(DownloadErrorCode::FileSystemError, "/x is not writable.");
    settle();
    EXPECT_THAT(newLines(),
                ElementsAre(errored("Filesystem, message=/x is not writable."), "onIdle"));

    auto transfer = restart();
    transfer.progress(7);
    transfer.headError(HttpRequestErrorType::SSLError, "certificate rejected");
    transfer.finish(content);
    settle();
    EXPECT_THAT(newLines(),
                ElementsAre(line("onDownloading", downloadFile(), 7),
                            errored("Connection, message=certificate rejected", 7), "onIdle"));
}

TEST_F(PackDownloadTest, HttpStatusesOtherThan200204And206AreErrors) {
    start();
    downloadPack();
    settle();
    newLines();

    http->nextDownload().finish(content, 304);
    settle();
    EXPECT_THAT(newLines(), ElementsAre(errored("Unknown, message=HTTP Error 304"), "onIdle"));

    restart().finish("", 404);
    settle();
    EXPECT_THAT(newLines(), ElementsAre(errored("NotFound, message="), "onIdle"));

    // The error body the server sent is what the report quotes.
    auto transfer = restart();
    const std::string body = R"({"message": "try later"})";
    transfer.report(DownloadStatus(transfer.id(), DownloadState::Finished, nullopt, nullopt, 0,
                                   transfer.options(),
                                   HttpResponseData{{}, 503, HttpBody(body.begin(), body.end())}));
    settle();
    EXPECT_THAT(newLines(),
                ElementsAre(errored("Server, message=HTTP Error 503: try later"), "onIdle"));

    restart().finish(content, 206);
    settle();
    EXPECT_THAT(newLines(), ElementsAre(line("onVerifying", downloadFile(), 0),
                                        line("onAvailable", packFile(), content.size()), "onIdle"));
}

TEST_F(PackDownloadTest, AnHttpErrorNeverQuotesTheAccessToken) {
    start();
    downloadPack();
    settle();
    newLines();
    http->nextDownload().fail(DownloadErrorCode::NetworkError, "failed: " + packURL);
    settle();
    const auto lines = newLines();
    ASSERT_THAT(lines, SizeIs(2u));
    EXPECT_EQ(lines[0].find("access_token=tk"), std::string::npos) << lines[0];
}

TEST_F(PackDownloadTest, OnlyACorruptPackIsDownloadedAgainWithoutResuming) {
    start();
    downloadPack();
    settle();
    newLines();
    // One byte short: the verification calls it corrupt.
    http->nextDownload().finish(content.substr(1));
    settle();
    EXPECT_THAT(newLines(),
                ElementsAre(line("onVerifying", downloadFile(), 0),
                            errored("Corrupt, message=File doesn't have expected size"), "onIdle"));

    auto fresh = restart();
    EXPECT_FALSE(fresh.resume());
    fresh.fail(DownloadErrorCode::NetworkError, "lost");
    settle();
    newLines();
    EXPECT_TRUE(restart().resume());
}

TEST_F(PackDownloadTest, AHeaderRecordThatCannotBeWrittenStopsThePackBeforeVerification) {
    start();
    newLines();
    downloadPack();
    settle();
    // A header record that cannot be written stops the pack before verification.
    fs::remove(headerFile());
    fs::create_directories(headerFile() / "occupied");
    http->nextDownload().finish(content, 200, {{"etag", "\"e\""}});
    settle();
    const auto lines = newLines();
    ASSERT_THAT(lines, SizeIs(3u));
    EXPECT_EQ(lines[1], errored("Filesystem, message=Is a directory"));
    EXPECT_EQ(lines[2], "onIdle");
    EXPECT_TRUE(fs::exists(downloadFile()));
    EXPECT_FALSE(fs::exists(packFile()));
}

TEST_F(PackDownloadTest, ARevisionDirectoryThatCannotBeMadeFailsBeforeAnythingStarts) {
    start();
    tree.writeFile("region-a", "a file where the region's directory belongs");
    newLines();
    downloadPack();
    settle();
    EXPECT_THAT(
        newLines(),
        ElementsAre(line("onErrored", "", 0, "Filesystem, message=Not a directory"), "onIdle"));
    EXPECT_THAT(http->downloads(), IsEmpty());
}

TEST_F(PackDownloadTest, AMetadataFileThatCannotBeWrittenFailsBeforeAnythingStarts) {
    start();
    fs::create_directories(tree.revisionDirectory("region-a", "3") / "metadata.json" / "x");
    newLines();
    downloadPack();
    settle();
    EXPECT_THAT(
        newLines(),
        ElementsAre(line("onErrored", "", 0, "Filesystem, message=Is a directory"), "onIdle"));
    EXPECT_THAT(http->downloads(), IsEmpty());
}

TEST_F(PackDownloadTest, ADownloadDirectoryThatCannotBeMadeKeepsTheServiceBusyForGood) {
    start();
    tree.writeFile("region-a/3/maps", "a file where the domain's directory belongs");
    newLines();
    downloadPack();
    settle();
    EXPECT_THAT(newLines(),
                ElementsAre(line("onPending", downloadFile(), 0),
                            errored("Filesystem, message=Could not create download directory")));
    EXPECT_THAT(http->downloads(), IsEmpty());

    // The download counted before the failure is never given back: no later operation brings
    // the service to idle again.
    cancelPackDownload();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(log("Skipped cancellation of maps pack download of "
                                            "revision 3 of offline region 'region-a': Pack is not "
                                            "downloading")));
}

TEST_F(PackDownloadTest, WithoutRoomForThePackNothingStarts) {
    start();
    newLines();
    auto huge = region();
    huge.mapPack->bytes = std::uint64_t{1} << 62;
    (*worker)->downloadPack(maps, std::move(huge));
    settle();
    const auto lines = newLines();
    ASSERT_THAT(lines, SizeIs(3u));
    EXPECT_EQ(lines[0], line("onPending", downloadFile(), 0));
    EXPECT_THAT(lines[1], MatchesRegex(".*error=Filesystem, message=Not enough disk space: "
                                       "4611686018427387904 bytes needed, [0-9]+ bytes available"));
    EXPECT_EQ(lines[2], "onIdle");
    EXPECT_THAT(http->downloads(), IsEmpty());
}

TEST_F(PackDownloadTest, WhatAResumablePartialFileHoldsIsNotNeededAgain) {
    // Far more than this disk holds, almost all of it already received (a sparse file).
    constexpr std::uint64_t packSize = std::uint64_t{8} << 40;
    auto huge = region();
    huge.mapPack->bytes = packSize;
    tree.writeFile(fs::relative(partialFile(), tree.root()), "");
    std::error_code sparse;
    fs::resize_file(partialFile(), packSize - 4096, sparse);
    if (sparse) {
        GTEST_SKIP() << "this file system holds no sparse file of that size: " << sparse.message();
    }
    start();
    newLines();
    (*worker)->downloadPack(maps, OfflineDataRegionMetadata(huge));
    settle();
    auto transfer = http->nextDownload();
    EXPECT_TRUE(transfer.resume());

    // A corrupt result is not resumed, so the whole pack is needed again.
    transfer.finish(content);
    settle();
    newLines();
    (*worker)->downloadPack(maps, OfflineDataRegionMetadata(huge));
    settle();
    const auto lines = newLines();
    ASSERT_THAT(lines, SizeIs(3u));
    EXPECT_THAT(lines[1], MatchesRegex(".*message=Not enough disk space: 8796093022208 bytes "
                                       "needed, [0-9]+ bytes available"));
    EXPECT_THAT(http->downloads(), SizeIs(1u));
}

TEST_F(PackDownloadTest, AnExpiredPackWithoutEntityTagIsDownloadedInFull) {
    storeAvailable(fromNow(-1h), "");
    start();
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Expired);
    newLines();
    downloadPack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(line("onPending", downloadFile(), 0)));
    EXPECT_THAT(http->downloads(), SizeIs(1u));
    EXPECT_THAT(http->requests(), IsEmpty());
}

TEST_F(PackDownloadTest, APackWhoseLeaseRunsOutBeforeItsVerificationEndsBecomesExpired) {
    start();
    downloadPack();
    settle();
    newLines();
    http->nextDownload().finish(content, 200, {{"cache-control", "max-age=0"}});
    http->waitUntilDelivered();
    // The answer is read (the lease ends that very millisecond) and the verification queued...
    ASSERT_TRUE(worker->runOne());
    // ...and by the time the verification runs, the clock has moved on.
    const auto read = fromNow(0ms);
    while (fromNow(0ms) <= read) {
        std::this_thread::yield();
    }
    worker->runPending();
    EXPECT_THAT(newLines(), ElementsAre(line("onVerifying", downloadFile(), 0),
                                        line("onExpired", packFile(), content.size()), "onIdle"));
    EXPECT_EQ(base::io::readFile(packFile()), content);
}

TEST_F(PackDownloadTest, MoreBytesThanThePackHasEndTheDownloadAsCorruptAndLeaveNoFile) {
    const std::function<void(const test::FakeDownload&)> overflows[] = {
        [this](const test::FakeDownload& transfer) { transfer.progress(content.size() + 1); },
        [](const test::FakeDownload& transfer) {
            transfer.fail(DownloadErrorCode::SizeExceeded, "The body grew beyond 38 bytes");
        },
    };
    start();
    for (const auto& overflow : overflows) {
        downloadPack();
        settle();
        auto transfer = http->nextDownload();
        newLines();
        for (const auto& file : {downloadFile(), partialFile(), resumeFile()}) {
            tree.writeFile(fs::relative(file, tree.root()), content + "and more");
        }
        overflow(transfer);
        settle();
        EXPECT_THAT(
            newLines(),
            ElementsAre(errored("Corrupt, message=File doesn't have expected size"), "onIdle"));
        for (const auto& file : {downloadFile(), partialFile(), resumeFile()}) {
            EXPECT_FALSE(fs::exists(file)) << file;
        }
    }
    // The transfer that did not stop by itself was cancelled.
    EXPECT_THAT(http->cancellations(), SizeIs(1u));
}

TEST_F(PackDownloadTest, ARepublishedRevisionIsFetchedAndCheckedByItsNewDescription) {
    start();
    downloadPack();
    settle();
    http->nextDownload().finish(content + " of old");
    settle();
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Errored);

    const std::string republished = "the bytes of the republished pack";
    auto described = region();
    described.mapPack->url = "terrane://offline-data/maps-v2.bin";
    described.mapPack->bytes = republished.size();
    described.mapPack->md5_checksum = util::md5String(republished);
    (*worker)->downloadPack(maps, OfflineDataRegionMetadata(described));
    settle();
    auto transfer = http->nextDownload();
    EXPECT_EQ(transfer.url(), baseURL + "/offline-data/v1/maps-v2.bin?access_token=tk");
    EXPECT_FALSE(transfer.resume());
    EXPECT_EQ(base::io::readFile(tree.revisionDirectory("region-a", "3") / "metadata.json"),
              serializeMetadata(described));
    transfer.finish(republished);
    settle();
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Available);

    // An Available pack keeps the description its file was checked by.
    newLines();
    downloadPack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre("onIdle"));
    EXPECT_THAT(http->downloads(), SizeIs(2u));
    EXPECT_EQ((*worker)->getRegions().at({"region-a", 3}).metadata.mapPack, described.mapPack);
}

TEST_F(PackDownloadTest, ARevisionZeroIsRefusedBeforeAnythingIsStored) {
    start();
    newLines();
    auto described = region();
    described.revision = 0;
    (*worker)->downloadPack(maps, std::move(described));
    settle();
    EXPECT_THAT(newLines(),
                ElementsAre("onErrored maps region-a/0 path= bytes=0 error=InvalidResponse, "
                            "message=Revision 0 of offline region 'region-a' cannot be stored: "
                            "revisions are numbered from 1",
                            "onIdle"));
    EXPECT_THAT(http->downloads(), IsEmpty());
    EXPECT_FALSE(fs::exists(tree.root() / "region-a"));
}

TEST_F(PackDownloadTest, AFinalReportQueuedAtShutdownIsStoredAndVerifiedAtTheNextStart) {
    start();
    downloadPack();
    settle();
    newLines();
    http->nextDownload().finish(content, 200, {{"etag", "\"e\""}});
    http->waitUntilDelivered();
    worker->beginShutdown();
    worker->runPending();
    // The header record is written; the verification is left for the next start.
    EXPECT_THAT(newLines(), ElementsAre(line("onVerifying", downloadFile(), 0), "onIdle"));
    EXPECT_TRUE(storedHeaders().complete);
    EXPECT_FALSE(storedHeaders().verified);

    worker.reset();
    start();
    EXPECT_THAT(newLines(), ElementsAre(line("onVerifying", downloadFile(), 0), "onInitialized",
                                        line("onAvailable", packFile(), content.size()), "onIdle"));
    EXPECT_EQ(storedHeaders().etag, "\"e\"");
}

TEST_F(PackDownloadTest, AtShutdownQueuedAnswersRunButNoNewExchangeStarts) {
    storeAvailable(fromNow(-1h), "\"e\"");
    start();
    newLines();
    worker->beginShutdown();
    downloadPack();
    (*worker)->listAvailableRegions([](auto) { ADD_FAILURE(); });
    worker->runPending();
    EXPECT_THAT(newLines(), ElementsAre(log("Skipped download of maps pack of revision 3 of "
                                            "offline region 'region-a': The offline service is "
                                            "shutting down"),
                                        "onIdle"));
    EXPECT_TRUE(http->requests().empty());
    EXPECT_TRUE(http->downloads().empty());
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Expired);
}

TEST_F(PackDownloadTest, ADeletionAcknowledgedRightBeforeTheReleaseIsCarriedOut) {
    storeAvailable(fromNow(24h), "\"e\"");
    OfflineService::registerObserver(recorder);
    struct Unregister {
        std::shared_ptr<OfflineServiceObserver> observer;
        ~Unregister() { OfflineService::unregisterObserver(observer); }
    } unregister{recorder};
    auto service = OfflineService::getInstance(directory.path().string(), options);
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    service->deletePack(maps, region());
    ASSERT_TRUE(recorder->waitFor(line("onDeleting", packFile(), content.size())));
    for (const auto& acknowledge : recorder->takeAcknowledgements()) {
        acknowledge();
    }
    service.reset();
    EXPECT_EQ(recorder->count(deleted()), 1U);
    EXPECT_FALSE(fs::exists(packFile()));
    EXPECT_FALSE(fs::exists(headerFile()));

    worker = std::make_unique<test::ManualWorker>(directory.path().string(), options,
                                                  OfflineServiceObservers{});
    EXPECT_TRUE((*worker)->getRegions().empty());
}

TEST_F(PackDownloadTest, ThroughTheServiceAPackIsDownloadedVerifiedAndDeletedEndToEnd) {
    OfflineService::registerObserver(recorder);
    struct Unregister {
        std::shared_ptr<OfflineServiceObserver> observer;
        ~Unregister() { OfflineService::unregisterObserver(observer); }
    } unregister{recorder};
    auto service = OfflineService::getInstance(directory.path().string(), options);
    ASSERT_TRUE(recorder->waitFor("onIdle"));

    service->downloadPack(maps, region());
    auto transfer = http->nextDownload();
    transfer.start();
    transfer.progress(content.size() / 2, content.size());
    transfer.finish(content, 200, {{"etag", "\"v1\""}});
    ASSERT_TRUE(recorder->waitFor("onIdle", 2));

    service->deletePack(maps, region());
    ASSERT_TRUE(recorder->waitFor(line("onDeleting", packFile(), content.size())));
    for (const auto& acknowledge : recorder->takeAcknowledgements()) {
        acknowledge();
    }
    ASSERT_TRUE(recorder->waitFor("onIdle", 3));
    service.reset();

    const std::uint64_t half = content.size() / 2;
    EXPECT_THAT(recorder->lines(),
                ElementsAre("onInitialized", "onIdle", line("onPending", downloadFile(), 0),
                            line("onDownloading", downloadFile(), 0),
                            line("onDownloading", downloadFile(), half),
                            line("onVerifying", downloadFile(), half),
                            line("onAvailable", packFile(), content.size()), "onIdle",
                            line("onDeleting", packFile(), content.size()), deleted(), "onIdle"));
    EXPECT_FALSE(fs::exists(packFile()));
    EXPECT_FALSE(fs::exists(headerFile()));
}

}  // namespace
}  // namespace terrane::common
