#include "terrane/client/offline_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "terrane/http/http_service_factory.hpp"
#include "terrane/offline/offline_service.hpp"
#include "terrane/reachability/reachability_interface.hpp"
#include "terrane/util/md5.hpp"
#include "testing/fake_http_service.hpp"
#include "testing/storage_tree.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using test::FakeDownload;
using ::testing::EndsWith;
using ::testing::IsEmpty;

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

// A network whose status the test sets; set() calls every listener on the test's thread, as the
// monitor thread would. Any thread.
class ScriptedReachability final : public ReachabilityInterface {
  public:
    void addListener(std::function<void(NetworkStatus)>&& listener) override {
        std::lock_guard lock(mutex_);
        listeners_.push_back(std::move(listener));
    }
    bool isReachable() override { return status_ != NetworkStatus::NotReachable; }
    NetworkStatus currentNetworkStatus() override { return status_; }
    void start() override { set(status_); }
    void stop() override {}
    void set(NetworkStatus status) {
        status_ = status;
        std::lock_guard lock(mutex_);
        for (const auto& listener : listeners_) {
            listener(status);
        }
    }

  private:
    std::atomic<NetworkStatus> status_ = NetworkStatus::ReachableViaWiFi;
    std::mutex mutex_;
    std::vector<std::function<void(NetworkStatus)>> listeners_;
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
    void SetUp() override { HttpServiceFactory::setUserDefined(http); }
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

    PackDownloadOptions withProgress(RetryPolicy retry = {}) {
        PackDownloadOptions options;
        options.progress = [log = progress](const PackProgress& record) { log->add(record); };
        options.retry = retry;
        return options;
    }

    static void expectError(const PackResult& result, OfflineDataErrorCode code) {
        ASSERT_FALSE(result.outcome) << toString(result.domain) << " is available";
        EXPECT_EQ(result.outcome.error().code, code) << result.outcome.error();
    }

    const std::string content = "the bytes of the maps pack of region-a";
    const OfflineServiceOptions serviceOptions{"alice", "tk", "http://127.0.0.1:9"};
    test::TemporaryDirectory directory;
    std::shared_ptr<test::FakeHttpService> http = std::make_shared<test::FakeHttpService>();
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<Recorded<PackProgress>> progress = std::make_shared<Recorded<PackProgress>>();
    std::shared_ptr<ScriptedReachability> reachability = std::make_shared<ScriptedReachability>();
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

TEST_F(OfflineClientTest, TransientFailuresAreRetriedOnTheBackoffScheduleWhichProgressResets) {
    auto& client = makeClient();
    const auto drop = [](const FakeDownload& download) {
        download.fail(DownloadErrorCode::NetworkError, "connection dropped");
    };
    struct Row {
        std::function<void(const FakeDownload&)> fail;
        std::chrono::seconds delay;
    };
    const Row rows[] = {
        {drop, 1s},
        {[](const FakeDownload& download) { download.finish("busy", 503); }, 2s},
        {[](const FakeDownload& download) { download.finish("slow down", 429); }, 4s},
        // Cancelled by someone else: the pack is left Incomplete.
        {[this](const FakeDownload&) {
             OfflineService::getInstance({}, {})->cancelPackDownload(maps, region());
         },
         8s},
        {drop, 16s},
        {[&](const FakeDownload& download) {
             download.progress(5, content.size());
             drop(download);
         },
         1s},
        {drop, 2s},
    };
    auto operation = client.download(region(), {maps, navigation}, withProgress());
    std::uint32_t attempt = 0;
    for (const auto& row : rows) {
        ++attempt;
        row.fail(http->nextDownload());
        const auto waiting = progress->next(retryWaiting);
        EXPECT_EQ(*waiting.nextRetry - clock->now(), row.delay) << "attempt " << attempt;
        EXPECT_EQ(waiting.attempt, attempt);
        EXPECT_FALSE(operation.done());
        clock->advance(row.delay);
    }
    http->nextDownload().finish(content);
    const auto& results = operation.result();
    ASSERT_TRUE(results[0].outcome) << results[0].outcome.error();
    EXPECT_THAT(results[0].outcome->path, EndsWith("maps/1"));
    expectError(results[1], OfflineDataErrorCode::NotFound);  // the region has no such pack
    const auto last = progress->next(available);
    EXPECT_EQ(std::pair(last.bytesDone, last.bytesTotal),
              std::pair(content.size(), content.size()));

    // The service answers nothing when asked for an available pack; the client still does.
    const auto again = client.download(region(), {maps});
    ASSERT_TRUE(again.wait_for(10s));
    EXPECT_EQ(again.result()[0].outcome, results[0].outcome);
    EXPECT_EQ(http->downloads().size(), std::size(rows) + 1);
}

TEST_F(OfflineClientTest, FinalErrorsAndTheAttemptLimitEndThePack) {
    auto& client = makeClient();
    struct Row {
        std::function<void(const FakeDownload&)> fail;
        optional<std::uint32_t> maxAttempts;
        OfflineDataErrorCode code;
        std::size_t downloads;
    };
    using Code = OfflineDataErrorCode;
    const Row rows[] = {
        {[](const FakeDownload& d) { d.finish("denied", 401); }, nullopt, Code::Unauthorized, 1},
        {[](const FakeDownload& d) { d.finish("gone", 404); }, nullopt, Code::NotFound, 1},
        // Corrupt twice: the second download starts from scratch, the second failure is final.
        {[](const FakeDownload& d) { d.finish("not the pack"); }, nullopt, Code::Corrupt, 2},
        {[](const FakeDownload& d) { d.fail(DownloadErrorCode::NetworkError, "x"); }, 3,
         Code::Connection, 3},
    };
    for (const auto& row : rows) {
        const std::size_t before = http->downloads().size();
        RetryPolicy retry;
        retry.maxAttempts = row.maxAttempts;
        auto operation = client.download(region(), {maps}, withProgress(retry));
        for (std::size_t download = 0; download < row.downloads; ++download) {
            row.fail(http->nextDownload());
            if (download + 1 < row.downloads && row.code != Code::Corrupt) {
                clock->advance(progress->next(retryWaiting).nextRetry.value() - clock->now());
            }
        }
        expectError(operation.result()[0], row.code);
        EXPECT_EQ(http->downloads().size() - before, row.downloads) << row.code;
    }
}

TEST_F(OfflineClientTest, AStopTokenCancelsTheDownloadAndItsPartialFileStays) {
    auto& client = makeClient();
    std::stop_source stop;
    auto options = withProgress();
    options.stop = stop.get_token();
    auto operation = client.download(region(), {maps}, options);
    const auto download = http->nextDownload();
    download.progress(10, content.size());
    progress->next([](const PackProgress& record) { return record.bytesDone == 10; });
    stop.request_stop();

    const auto& result = operation.result()[0];
    EXPECT_TRUE(result.cancelled);
    EXPECT_EQ(result.outcome.error().message, cancelledMessage);
    EXPECT_EQ(http->nextCancellation().id(), download.id());
    const auto stored = client.stored();
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].pack.status, OfflineDataPackStatus::Incomplete);
    EXPECT_EQ(stored[0].pack.bytes, 10u);
    EXPECT_THAT(stored[0].pack.path, EndsWith("maps/1.tmp"));
}

TEST_F(OfflineClientTest, ClientsShareTheServiceAndARemovalCompletesOnceThePackIsDeleted) {
    auto& downloader = makeClient();
    auto& remover = makeClient();
    const auto downloaderLog = std::make_shared<StateLog>();
    const auto removerLog = std::make_shared<StateLog>();
    downloader.addObserver(downloaderLog);
    downloader.addObserver(downloaderLog);
    remover.addObserver(removerLog);

    auto download = downloader.download(region(), {maps});
    http->nextDownload().finish(content);
    ASSERT_TRUE(download.result()[0].outcome);
    EXPECT_EQ(remover.stored().at(0).pack.status, OfflineDataPackStatus::Available);
    const auto removing = remover.remove(region(), {});
    const auto& removal = removing.result();
    ASSERT_EQ(removal.size(), 1u);
    ASSERT_TRUE(removal[0].outcome) << removal[0].outcome.error();
    EXPECT_EQ(removal[0].outcome->status, OfflineDataPackStatus::Deleted);
    EXPECT_THAT(downloader.stored(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(download.result()[0].outcome->path));

    // Each client's observer hears every pack of the service, once, on its client's own thread.
    const auto is = [](OfflineDataPackStatus wanted) {
        return [wanted](OfflineDataPackStatus status) { return status == wanted; };
    };
    for (const auto& log : {downloaderLog, removerLog}) {
        log->next(is(OfflineDataPackStatus::Available));
        log->next(is(OfflineDataPackStatus::Deleting));
        log->next(is(OfflineDataPackStatus::Deleted));
    }
    const auto heard = downloaderLog->all();
    EXPECT_EQ(heard.front(), OfflineDataPackStatus::Pending);
    EXPECT_EQ(std::count(heard.begin(), heard.end(), OfflineDataPackStatus::Deleted), 1);

    // An observer removed from one client hears nothing more; the other client's still does.
    downloader.removeObserver(downloaderLog);
    auto again = remover.download(region(), {maps});
    http->nextDownload().finish(content);
    ASSERT_TRUE(again.result()[0].outcome);
    removerLog->next(is(OfflineDataPackStatus::Available));
    EXPECT_EQ(downloaderLog->all(), heard);
}

TEST_F(OfflineClientTest, DownloadsWaitWhileTheirNetworkPolicyForbidsTheNetworkAndResumeAfter) {
    auto& client = makeClient();
    struct Row {
        NetworkStatus start;
        NetworkPolicy policy;
        bool startsAtOnce;
        // Where the network goes while the download runs, if anywhere.
        optional<NetworkStatus> away;
    };
    const Row rows[] = {
        {NetworkStatus::ReachableViaWiFi, NetworkPolicy::AnyNetwork, true,
         NetworkStatus::NotReachable},
        {NetworkStatus::ReachableViaWiFi, NetworkPolicy::NotOverWAN, true,
         NetworkStatus::ReachableViaWAN},
        {NetworkStatus::ReachableViaWAN, NetworkPolicy::AnyNetwork, true, nullopt},
        {NetworkStatus::ReachableViaWAN, NetworkPolicy::NotOverWAN, false, nullopt},
        {NetworkStatus::NotReachable, NetworkPolicy::AnyNetwork, false, nullopt},
    };
    const auto waiting = [](const PackProgress& record) { return record.waitingForNetwork; };
    int number = 0;
    for (const auto& row : rows) {
        reachability->set(row.start);
        auto options = withProgress();
        options.network = row.policy;
        const std::size_t before = http->downloads().size();
        auto operation =
            client.download(region("region-" + std::to_string(++number)), {maps}, options);
        if (!row.startsAtOnce) {
            progress->next(waiting);
            EXPECT_EQ(http->downloads().size(), before) << number;
            reachability->set(NetworkStatus::ReachableViaWiFi);
        }
        auto download = http->nextDownload();
        if (row.away) {
            download.progress(10, content.size());
            progress->next([](const PackProgress& record) { return record.bytesDone == 10; });
            reachability->set(*row.away);
            EXPECT_EQ(http->nextCancellation().id(), download.id()) << number;
            progress->next(waiting);
            reachability->set(NetworkStatus::ReachableViaWiFi);
            download = http->nextDownload();
            EXPECT_TRUE(download.resume()) << number;
        }
        download.finish(content);
        ASSERT_TRUE(operation.result()[0].outcome) << number;
        EXPECT_EQ(progress->next(available).attempt, 1u) << "waiting for the network is no retry";
    }
}

}  // namespace
}  // namespace terrane::common
