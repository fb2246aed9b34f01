#include "terrane/client/offline_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "reachability/reachability_flags.hpp"
#include "reachability/reachability_notification_center.hpp"
#include "reachability/reachability_service.hpp"
#include "terrane/client/retry_policy.hpp"
#include "terrane/http/http_service_factory.hpp"
#include "terrane/offline/offline_service.hpp"
#include "terrane/util/md5.hpp"
#include "testing/fake_http_service.hpp"
#include "testing/http_test_server.hpp"
#include "testing/scripted_reachability_handle.hpp"
#include "testing/storage_tree.hpp"
#include "util/file_io.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using test::FakeDownload;
using ::testing::IsEmpty;
using ::testing::PrintToString;

constexpr auto maps = OfflineDataDomain::Maps;
constexpr auto navigation = OfflineDataDomain::Navigation;

// A clock whose time moves only when the test advances it, so that retry schedules of minutes
// run at once. Any thread.
class ManualClock final : public ClientClock {
  public:
    TimePoint now() const override { return TimePoint(ticks_.load()); }
    std::uint64_t subscribe(std::function<void()> wake) override {
        std::lock_guard lock(mutex_);
        subscribers_.emplace(next_, std::move(wake));
        return next_++;
    }
    void unsubscribe(std::uint64_t subscription) override {
        std::lock_guard lock(mutex_);
        subscribers_.erase(subscription);
    }
    // Wakes the subscribers under the mutex, so that unsubscribe() returns only once no call is
    // under way.
    void advance(std::chrono::nanoseconds by) {
        ticks_.store(ticks_.load() + std::chrono::duration_cast<TimePoint::duration>(by));
        std::lock_guard lock(mutex_);
        for (const auto& [number, wake] : subscribers_) {
            wake();
        }
    }

  private:
    std::atomic<TimePoint::duration> ticks_{std::chrono::hours(1)};
    std::mutex mutex_;
    std::map<std::uint64_t, std::function<void()>> subscribers_;
    std::uint64_t next_ = 1;
};

// What a client's thread hands over (progress reports, observer calls), for the test thread to
// wait on.
template <typename Record>
class Recorded {
  public:
    void add(Record record) {
        std::lock_guard lock(mutex_);
        records_.push_back(std::move(record));
        changed_.notify_all();
    }

    // The first record after the one last returned that satisfies `predicate`.
    Record next(const std::function<bool(const Record&)>& predicate) {
        std::unique_lock lock(mutex_);
        const bool found = changed_.wait_for(lock, 10s, [&] {
            const auto at = std::find_if(records_.begin() + cursor_, records_.end(), predicate);
            cursor_ = at - records_.begin();
            return at != records_.end();
        });
        EXPECT_TRUE(found) << "no such record";
        return found ? records_[cursor_++] : Record{};
    }

    std::vector<Record> all() {
        std::lock_guard lock(mutex_);
        return records_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Record> records_;
    std::size_t cursor_ = 0;
};

// Every state a client's observer hears.
class StateLog final : public OfflineClientObserver, public Recorded<OfflineDataPackStatus> {
  public:
    void onPackState(const PackState& state) override { add(state.pack.status); }
};

const auto retryWaiting = [](const PackProgress& progress) {
    return progress.nextRetry.has_value();
};
const auto available = [](const PackProgress& progress) {
    return progress.state == OfflineDataPackStatus::Available;
};

// Clients over a real offline service whose HTTP service is the scriptable fake, with a clock
// that moves only when the test says and no jitter.
class OfflineClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        HttpServiceFactory::setUserDefined(http);
        reachability->start();
    }
    void TearDown() override {
        clients.clear();
        HttpServiceFactory::setUserDefined(nullptr);
    }

    OfflineClient& makeClient() {
        OfflineClientSettings settings;
        settings.clock = clock;
        settings.random = [] { return 0.0; };
        settings.reachability = reachability;
        clients.push_back(
            std::make_unique<OfflineClient>(directory.path().string(), serviceOptions, settings));
        return *clients.back();
    }

    // Region "region-a" at revision 3, whose maps pack is `content`; no navigation pack.
    OfflineDataRegionMetadata region(std::string id = "region-a") const {
        auto described = test::sampleRegion(std::move(id), 3);
        described.mapPack->bytes = content.size();
        described.mapPack->md5_checksum = util::md5String(content);
        return described;
    }

    PackDownloadOptions withProgress() {
        PackDownloadOptions options;
        options.progress = [log = progress](const PackProgress& record) { log->add(record); };
        return options;
    }

    // Ends a download: with an HTTP status, dropped ("drop"), after 5 bytes and dropped,
    // "corrupt" or "finish"ed, cancelled by someone else, which leaves the pack Incomplete, or
    // "stop"ped by the operation's own token.
    void end(const FakeDownload& download, const std::string& how, std::stop_source& stop) const {
        if (how == "stop") {
            stop.request_stop();
            EXPECT_EQ(http->nextCancellation().id(), download.id());
        } else if (how == "cancel") {
            OfflineService::getInstance({}, {})->cancelPackDownload(maps, region());
        } else if (how == "finish" || how == "corrupt") {
            download.finish(how == "finish" ? content : "not the pack");
        } else if (how.ends_with("drop")) {
            if (how != "drop") {
                download.progress(5, content.size());
            }
            download.fail(DownloadErrorCode::NetworkError, "connection dropped");
        } else {
            download.finish("refused", std::stoi(how));
        }
    }

    // Set on the test's thread, which tells the clients as the monitor thread would.
    void setNetwork(ReachabilityFlags flags) {
        *network = flags;
        center.post();
    }

    // The tail of an available pack's path ("maps/1"), or the code of the error that ended it.
    static std::string outcome(const PackResult& result) {
        const auto& pack = result.outcome;
        return pack ? pack->path.substr(pack->path.size() - 6)
                    : (result.cancelled ? "cancelled " : "") + PrintToString(pack.error().code);
    }

    const std::string content = "the bytes of the maps pack of region-a";
    const OfflineServiceOptions serviceOptions{"alice", "tk", "http://127.0.0.1:9"};
    test::TemporaryDirectory directory;
    std::shared_ptr<test::FakeHttpService> http = std::make_shared<test::FakeHttpService>();
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<Recorded<PackProgress>> progress = std::make_shared<Recorded<PackProgress>>();
    // What the network is now, set by the test.
    test::ScriptedReachabilityHandle::Flags network =
        std::make_shared<std::atomic<ReachabilityFlags>>(reachability_flag::Reachable);
    ReachabilityNotificationCenter center;
    std::shared_ptr<ReachabilityService> reachability = std::make_shared<ReachabilityService>(
        std::make_unique<test::ScriptedReachabilityHandle>(network), center);
    std::vector<std::unique_ptr<OfflineClient>> clients;
};

TEST_F(OfflineClientTest, TheCatalogueIsWaitedForUntilItArrivesTheTimeoutOrTheStop) {
    auto& client = makeClient();
    http->respondToUrlsStartingWith(
        "http://127.0.0.1:9/offline-data/v1/alice/regions", 200,
        R"({"harbour": {"revision": 7, "configuration": {}}, "hills": {"revision": 2,
            "configuration": {}}})");
    const auto found = client.findRegion("harbour", nullopt, 10s);
    ASSERT_TRUE(found) << found.error();
    EXPECT_EQ(found->revision, 7u);

    http->clearAutomaticAnswers();
    EXPECT_EQ(client.listRegions(10ms).error().code, OfflineDataErrorCode::Connection);
    std::stop_source stop;
    stop.request_stop();
    EXPECT_EQ(client.listRegions(10s, stop.get_token()).error().message, cancelledMessage);
}

// Each row ends the pack's downloads the way its endings say, and renders the delay of each retry
// that followed and then the pack's outcome.
TEST_F(OfflineClientTest, TransientFailuresAreRetriedOnABackoffScheduleUntilAFinalErrorOrTheLimit) {
    auto& client = makeClient();
    // The endings, the most attempts and the rendering.
    const std::tuple<std::vector<std::string>, optional<std::uint32_t>, std::string> rows[] = {
        {{"401"}, nullopt, "Unauthorized"},
        // The second download starts from scratch by itself; the second failure is final.
        {{"corrupt", "corrupt"}, nullopt, "Corrupt"},
        {{"drop", "drop", "drop"}, 3, "1s 2s Connection"},
        {{"stop"}, nullopt, "cancelled Unknown"},
        // Progress resets the schedule; a download cancelled by someone else is retried too.
        {{"drop", "503", "429", "cancel", "drop", "5 bytes, drop", "drop", "finish"},
         nullopt,
         "1s 2s 4s 8s 16s 1s 2s maps/1"},
    };
    for (const auto& [endings, maxAttempts, expected] : rows) {
        const std::size_t before = http->downloads().size();
        std::stop_source stop;
        auto options = withProgress();
        options.retry.maxAttempts = maxAttempts;
        options.stop = stop.get_token();
        auto operation = client.download(region(), {maps}, options);
        std::string transcript;
        for (std::size_t index = 0; index < endings.size(); ++index) {
            end(http->nextDownload(), endings[index], stop);
            if (index + 1 < endings.size() && endings[index] != "corrupt") {
                const auto waiting = progress->next(retryWaiting);
                const auto delay = *waiting.nextRetry - clock->now();
                transcript += std::to_string(delay / 1s) + "s ";
                clock->advance(delay);
            }
        }
        EXPECT_EQ(transcript + outcome(operation.result()[0]), expected);
        EXPECT_EQ(http->downloads().size() - before, endings.size()) << expected;
    }
    const auto last = progress->next(available);
    EXPECT_EQ(std::pair(last.bytesDone, last.bytesTotal),
              std::pair(content.size(), content.size()));

    // The service answers nothing when asked for an available pack; the client still does. A
    // domain the region does not offer is NotFound.
    const auto again = client.download(region(), {maps, navigation});
    EXPECT_EQ(outcome(again.result()[0]) + " " + outcome(again.result()[1]), "maps/1 NotFound");
    EXPECT_EQ(http->downloads().size(), 15u);
}

TEST_F(OfflineClientTest, ClientsShareTheServiceAndARemovalCompletesOnceThePackIsDeleted) {
    using enum OfflineDataPackStatus;
    auto& downloader = makeClient();
    auto& remover = makeClient();
    const auto downloaderLog = std::make_shared<StateLog>();
    const auto removerLog = std::make_shared<StateLog>();
    downloader.addObserver(downloaderLog);
    downloader.addObserver(downloaderLog);
    remover.addObserver(removerLog);

    auto download = downloader.download(region(), {maps});
    http->nextDownload().finish(content);
    EXPECT_EQ(outcome(download.result()[0]), "maps/1");
    EXPECT_EQ(remover.stored().at(0).pack.status, Available);
    const auto removing = remover.remove(region(), {});
    const auto& removal = removing.result();
    ASSERT_TRUE(removal.at(0).outcome) << removal[0].outcome.error();
    EXPECT_EQ(removal[0].outcome->status, Deleted);
    EXPECT_THAT(downloader.stored(), IsEmpty());

    // Each client's observer hears every pack of the service, once, on its client's own thread.
    const auto is = [](OfflineDataPackStatus wanted) {
        return [wanted](OfflineDataPackStatus status) { return status == wanted; };
    };
    const std::vector heard{Pending, Verifying, Available, Deleting, Deleted};
    for (const auto& log : {downloaderLog, removerLog}) {
        log->next(is(Deleted));
        EXPECT_EQ(log->all(), heard);
    }
}

TEST_F(OfflineClientTest, DownloadsWaitWhileTheirNetworkPolicyForbidsTheNetworkAndResumeAfter) {
    auto& client = makeClient();
    using namespace reachability_flag;
    const ReachabilityFlags wifi = Reachable, wan = Reachable | IsWWAN, none = 0;
    // The network at the start, the policy, whether the download starts at once, and where the
    // network goes while it runs, if anywhere.
    const std::tuple<ReachabilityFlags, NetworkPolicy, bool, optional<ReachabilityFlags>> rows[] = {
        {wifi, NetworkPolicy::AnyNetwork, true, none},
        {wifi, NetworkPolicy::NotOverWAN, true, wan},
        {wan, NetworkPolicy::AnyNetwork, true, nullopt},
        {wan, NetworkPolicy::NotOverWAN, false, nullopt},
    };
    const auto waiting = [](const PackProgress& record) { return record.waitingForNetwork; };
    int number = 0;
    for (const auto& [start, policy, startsAtOnce, away] : rows) {
        setNetwork(start);
        auto options = withProgress();
        options.network = policy;
        const std::size_t before = http->downloads().size();
        auto operation =
            client.download(region("region-" + std::to_string(++number)), {maps}, options);
        if (!startsAtOnce) {
            progress->next(waiting);
            EXPECT_EQ(http->downloads().size(), before) << number;
            setNetwork(wifi);
        }
        auto download = http->nextDownload();
        if (away) {
            download.progress(10, content.size());
            progress->next([](const PackProgress& record) { return record.bytesDone == 10; });
            setNetwork(*away);
            EXPECT_EQ(http->nextCancellation().id(), download.id()) << number;
            progress->next(waiting);
            setNetwork(wifi);
            download = http->nextDownload();
            EXPECT_TRUE(download.resume()) << number;
        }
        download.finish(content);
        EXPECT_EQ(outcome(operation.result()[0]), "maps/1") << number;
        EXPECT_EQ(progress->next(available).attempt, 1u) << "waiting for the network is no retry";
    }
}

// The whole road over the platform's HTTP service and a real server on 127.0.0.1.
TEST(OfflineClientEndToEnd, ADownloadSurvivesTwoDroppedConnectionsWithoutHelp) {
    test::HttpTestServer server;
    const test::TestFile file{
        .content = test::testContent(256 * 1024), .dropAfter = 64 * 1024, .faultyResponses = 2};
    server.serve("/packs/harbour-maps.bin", file);
    auto region = test::sampleRegion("harbour", 2);
    region.mapPack =
        OfflineDataPackMetadata{server.url("/packs/harbour-maps.bin"),
                                util::md5String(file.content), file.content.size(), 1, ""};

    test::TemporaryDirectory storage;
    std::uint32_t attempts = 0;
    std::uint64_t resumedFrom = 0;
    {
        OfflineClient client(storage.path().string(), {"alice", "tk", server.url("")});
        PackDownloadOptions options;
        options.retry.initialDelay = 10ms;
        // Runs on the client's thread only, so the counters need no lock.
        options.progress = [&](const PackProgress& progress) {
            attempts = progress.attempt;
            resumedFrom = std::max(resumedFrom, progress.resumedFrom);
        };
        const auto retried = client.download(region, {}, options);
        ASSERT_TRUE(retried.wait_for(60s));
        const auto& outcome = retried.result().at(0).outcome;
        ASSERT_TRUE(outcome) << outcome.error();
        EXPECT_EQ(base::io::readFile(outcome->path).value_or(""), file.content);
    }
    EXPECT_EQ(attempts, 3u);
    EXPECT_GT(resumedFrom, 0u) << "the retries resume the partial file";
}

}  // namespace
}  // namespace terrane::common
