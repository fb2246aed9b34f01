#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "offline/offline_data_pack_holder.hpp"
#include "offline/offline_storage.hpp"
#include "terrane/http/http_service_factory.hpp"
#include "terrane/offline/offline_data.hpp"
#include "terrane/offline/offline_service.hpp"
#include "terrane/util/md5.hpp"
#include "testing/fake_http_service.hpp"
#include "testing/manual_worker.hpp"
#include "testing/recording_observer.hpp"
#include "testing/storage_tree.hpp"
#include "util/file_io.hpp"

namespace terrane::common::test {

// The stage for the worker tests: a worker worked off step by step on the test thread
// (ManualWorker), the scriptable HTTP service in force, a recording observer, and the storage
// tree of one region revision ("region-a", revision 3) whose maps pack is `content`.
//
// A test reads as the exchange it checks: a call on the worker, the HTTP answer, then settle()
// and the observer lines that came of it (newLines()), and the files on disk. "onIdle" closes
// the lines only when no download, deletion or cancellation is outstanding.
class PackLifecycleTest : public ::testing::Test {
  protected:
    using Lines = RecordingObserver::Lines;
    static constexpr auto maps = OfflineDataDomain::Maps;
    static constexpr auto navigation = OfflineDataDomain::Navigation;

    void SetUp() override { HttpServiceFactory::setUserDefined(http); }
    // Every test ends with the proof that the access token reached no file.
    void TearDown() override {
        worker.reset();
        OfflineService::unregisterObserver(recorder);
        HttpServiceFactory::setUserDefined(nullptr);
        EXPECT_EQ(filesContaining(directory.path(), options.accessToken),
                  std::vector<std::string>{})
            << "the access token reached the disk";
    }

    // The region as the catalogue describes it: its maps pack is `content`.
    OfflineDataRegionMetadata region() const {
        auto described = sampleRegion("region-a", 3);
        described.mapPack->bytes = content.size();
        described.mapPack->md5_checksum = util::md5String(content);
        return described;
    }

    // Starts the worker on the tree as it is now, lets it settle, and returns the lines of the
    // start-up (the stored packs, onInitialized, onIdle).
    Lines start(OfflineServiceObservers observers) {
        worker.reset();  // lets go of the tree first
        worker = std::make_unique<ManualWorker>(directory.path().string(), options,
                                                std::move(observers));
        return settled();
    }
    Lines start() { return start({recorder}); }

    // Waits until every answer given to the fake has reached the worker's queue, then works the
    // queue off.
    void settle() {
        http->waitUntilDelivered();
        worker->runPending();
    }

    // settle(), then the lines that came of it.
    Lines settled() {
        settle();
        return newLines();
    }

    // The observer lines since the last call.
    Lines newLines() {
        const Lines all = recorder->lines();
        Lines fresh(all.begin() + static_cast<std::ptrdiff_t>(seen), all.end());
        seen = all.size();
        return fresh;
    }

    // The three public operations on the maps pack, as the facade would post them.
    void downloadPack() { (*worker)->downloadPack(maps, region()); }
    void cancelPackDownload() { (*worker)->cancelPackDownload(maps, region()); }
    void deletePack() { (*worker)->deletePack(maps, region()); }

    std::filesystem::path packFile() const { return tree.packFile("region-a", "3", maps); }
    std::filesystem::path downloadFile() const { return packFile().string() + ".tmp"; }
    std::filesystem::path headerFile() const { return packFile().string() + ".json"; }
    std::filesystem::path partialFile() const { return downloadFile().string() + ".part"; }
    std::filesystem::path resumeFile() const { return downloadFile().string() + ".rd"; }

    // "onAvailable maps region-a/3 path=<path> bytes=<bytes>[ error=...]"
    static std::string line(const std::string& callback, const std::filesystem::path& path,
                            std::uint64_t bytes, const std::string& error = {}) {
        return callback + " maps region-a/3 path=" + path.string() +
               " bytes=" + std::to_string(bytes) + (error.empty() ? "" : " error=" + error);
    }
    std::string available() const { return line("onAvailable", packFile(), content.size()); }
    static std::string deleted() { return "onDeleted maps region-a/3"; }
    static std::string log(const std::string& message) { return "onLogMessage " + message; }

    const OfflineDataPackHolder& holder() const {
        return (*worker)->getRegions().at({"region-a", 3}).mapsHolder;
    }

    // The pack's header record as it is on disk (default values when it is missing).
    OfflineDataPackHeaders storedHeaders() const {
        const auto text = base::io::readFile(headerFile());
        return parsePackHeaders(text.value_or("")).value_or(OfflineDataPackHeaders{});
    }

    // A pack that an earlier run downloaded and verified, with this lease.
    void storeAvailable(util::TimePoint expires, std::string etag, std::int64_t maxAge = 86400) {
        tree.writeMetadata("3", region());
        tree.writeHeaders("region-a", "3", maps,
                          {expires, maxAge, std::move(etag), content.size(), true, true});
        tree.writeFile(packFile(), content);
    }

    // A pack stored by an earlier run whose lease ran out an hour ago; returns the start-up lines.
    Lines startExpired(const std::string& etag) {
        storeAvailable(fromNow(std::chrono::hours(-1)), etag);
        return start();
    }

    // A downloaded pack whose verification an earlier run did not finish; the download file
    // holds `downloaded`.
    void storeUnverified(const std::string& downloaded,
                         util::TimePoint expires = util::TimePoint::max()) {
        tree.writeMetadata("3", region());
        tree.writeHeaders("region-a", "3", maps, {expires, -1, "", 0, true, false});
        tree.writeFile(downloadFile(), downloaded);
    }

    // Starts a download and leaves it in flight; the lines of the exchange are taken.
    FakeDownload downloadInFlight() {
        downloadPack();
        settle();
        newLines();
        return http->nextDownload();
    }

    // Starts a download and answers it with the whole content; the pack ends up Available.
    // The lines of the exchange are taken.
    void downloadToAvailable() {
        downloadInFlight().finish(content);
        settled();
    }

    // A download started and cancelled: the pack is Incomplete. The lines of the exchange are
    // taken.
    void downloadToIncomplete() {
        downloadInFlight();
        cancelPackDownload();
        settled();
    }

    // Calls every acknowledgement of a deletion that `observer` has received so far.
    static void acknowledgeAll(RecordingObserver& observer) {
        for (const auto& acknowledge : observer.takeAcknowledgements()) {
            acknowledge();
        }
    }

    static util::TimePoint fromNow(std::chrono::milliseconds offset) {
        return std::chrono::time_point_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now()) +
               offset;
    }

    const std::string baseURL = "http://127.0.0.1:9";
    const OfflineServiceOptions options{"alice", "tk", baseURL};
    // Where the worker fetches the maps pack of sampleRegion from.
    const std::string packURL = baseURL + "/offline-data/v1/maps.bin?access_token=tk";
    const std::string content = "the bytes of the maps pack of region-a";

    TemporaryDirectory directory;
    StorageTree tree{directory.path(), baseURL, "alice"};
    std::shared_ptr<FakeHttpService> http = std::make_shared<FakeHttpService>();
    std::shared_ptr<RecordingObserver> recorder = std::make_shared<RecordingObserver>();
    std::unique_ptr<ManualWorker> worker;

  private:
    std::size_t seen = 0;
};

}  // namespace terrane::common::test
