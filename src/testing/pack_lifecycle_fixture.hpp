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
// tree of one region revision ("region-a", revision 3) whose maps pack is `content` (38 bytes).
//
// A test reads as the exchange it checks: a call on the worker, the HTTP answer, then settled()
// and the observer lines that came of it, joined by " | ". Paths in them are relative to the
// storage root, and a line about the maps pack of region-a/3 names only the pack's file below the
// revision directory: "onPending maps/1.tmp bytes=0". "onIdle" closes the lines only when no
// download, deletion or cancellation is outstanding.
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

    // Starts the worker on the tree as it is now and returns the settled lines of the start-up.
    Lines startLines(OfflineServiceObservers observers) {
        worker.reset();  // lets go of the tree first
        worker = std::make_unique<ManualWorker>(directory.path().string(), options,
                                                std::move(observers));
        settle();
        return newLines();
    }
    std::string start() { return joined(startLines({recorder})); }

    // Works off the worker's queue: the answers given to the fake are in it already.
    void settle() { worker->runPending(); }
    std::string settled() {
        settle();
        return joined(newLines());
    }

    // The observer lines since the last call, shortened as described above.
    Lines newLines() {
        const Lines all = recorder->lines();
        Lines fresh(all.begin() + static_cast<std::ptrdiff_t>(seen), all.end());
        seen = all.size();
        const std::string root = tree.root().string() + "/";
        const std::string ours = " maps region-a/3 path=region-a/3/";
        for (auto& line : fresh) {
            for (auto at = line.find(root); at != std::string::npos; at = line.find(root)) {
                line.erase(at, root.size());
            }
            if (const auto at = line.find(ours); at != std::string::npos) {
                line.replace(at, ours.size(), " ");
            }
        }
        return fresh;
    }
    static std::string joined(const Lines& lines) {
        std::string text;
        for (const auto& line : lines) {
            text += (text.empty() ? "" : " | ") + line;
        }
        return text;
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
    static std::string log(const std::string& message) { return "onLogMessage " + message; }

    // The pack's files that exist, by name, of "1 1.tmp 1.tmp.part 1.tmp.rd 1.json".
    std::string packFiles() const {
        std::string names;
        for (const auto& file :
             {packFile(), downloadFile(), partialFile(), resumeFile(), headerFile()}) {
            if (std::filesystem::exists(std::filesystem::symlink_status(file))) {
                names += (names.empty() ? "" : " ") + file.filename().string();
            }
        }
        return names;
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
    std::string startExpired(const std::string& etag) {
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
        settled();
        return http->nextDownload();
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
