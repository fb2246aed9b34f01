// The Linux HTTP service against nginx on loopback, beside the curl command-line tool on the same
// files in the same run:
//   - one large file (1 GiB unless TERRANE_BENCH_LARGE_MIB says otherwise) downloaded into a
//     file: throughput, and the peak resident memory of this process;
//   - 1,000 small requests with 50 in flight: requests per second (curl --parallel).
// The offline service also takes the large file as a region's pack from downloadPack until
// observers hear it is Available (downloaded, size and MD5 verified, renamed), against curl's
// download alone.
// Needs /usr/sbin/nginx and /usr/bin/curl; without them it says so and exits 0. Files go to a
// directory under TMPDIR (default /tmp), removed at the end.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "bench_results.hpp"
#include "bench_support.hpp"
#include "platform/linux/curl_http_service.hpp"
#include "terrane/offline/offline_service.hpp"
#include "terrane/offline/offline_service_observer.hpp"
#include "terrane/util/md5.hpp"
#include "testing/nginx_server.hpp"

namespace {

namespace fs = std::filesystem;
using terrane::common::CurlHttpService;
using terrane::common::DownloadOptions;
using terrane::common::DownloadState;
using terrane::common::DownloadStatus;
using terrane::common::HttpRequest;
using terrane::common::HttpResponse;
using Clock = std::chrono::steady_clock;

constexpr const char* kCurlTool = "/usr/bin/curl";
constexpr int kSmallRequests = 1000;
constexpr int kInFlight = 50;

struct Setup {
    fs::path directory;
    std::unique_ptr<terrane::common::test::NginxServer> nginx;
    std::uint64_t largeSize = 0;
    std::string largeDigest;
    std::vector<std::string> smallUrls;
};

Setup* setup = nullptr;
// Best time of each benchmark, for the comparison printed at the end.
std::map<std::string, double> bestSeconds;

void remember(const std::string& name, double seconds) {
    auto [entry, inserted] = bestSeconds.try_emplace(name, seconds);
    if (!inserted) {
        entry->second = std::min(entry->second, seconds);
    }
}

double peakRssMiB() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;  // ru_maxrss is in KiB
}

void writeLargeFile(const fs::path& path, std::uint64_t size) {
    // One random MiB repeated: real bytes on disk, written quickly.
    std::string block(1024 * 1024, '\0');
    std::mt19937 random(42);
    for (auto& byte : block) {
        byte = static_cast<char>(random());
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    for (std::uint64_t written = 0; written < size; written += block.size()) {
        out.write(block.data(), static_cast<std::streamsize>(
                                    std::min<std::uint64_t>(block.size(), size - written)));
    }
}

void BM_ServiceDownloadLargeFile(benchmark::State& state) {
    const auto service = std::make_shared<CurlHttpService>();
    const fs::path output = setup->directory / "out" / "service.bin";
    for (auto _ : state) {
        std::mutex mutex;
        std::condition_variable done;
        std::optional<DownloadStatus> final;
        const auto started = Clock::now();
        service->download(DownloadOptions(HttpRequest(setup->nginx->url("/large.bin")), output),
                          [&](DownloadStatus&& status) {
                              if (terrane::common::isFinal(status.state)) {
                                  std::lock_guard lock(mutex);
                                  final = std::move(status);
                                  done.notify_all();
                              }
                          });
        std::unique_lock lock(mutex);
        done.wait(lock, [&] { return final.has_value(); });
        const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
        if (final->state != DownloadState::Finished || final->receivedBytes != setup->largeSize) {
            state.SkipWithError("the download failed");
            return;
        }
        state.SetIterationTime(seconds);
        remember("service download", seconds);
        fs::remove(output);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(setup->largeSize) * state.iterations());
    state.counters["peak_rss_MiB"] = peakRssMiB();
}

// Hears when the one pack of the benchmark settles.
class PackObserver : public terrane::common::OfflineServiceObserver {
  public:
    using Domain = terrane::common::OfflineDataDomain;
    using Region = terrane::common::OfflineDataRegionMetadata;
    using Pack = terrane::common::OfflineDataPack;

    void onIncomplete(Domain, const Region&, const Pack&) override { settle(false); }
    void onAvailable(Domain, const Region&, const Pack&) override { settle(true); }
    void onExpired(Domain, const Region&, const Pack&) override { settle(false); }
    void onErrored(Domain, const Region&, const Pack&) override { settle(false); }
    void onInitialized() override {
        std::lock_guard lock(mutex);
        initialized = true;
        changed.notify_all();
    }
    void onLogMessage(const std::string& message) override {
        std::fprintf(stderr, "log: %s\n", message.c_str());
    }

    void waitForInitialized() {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return initialized; });
        initialized = false;
    }
    // Whether the pack became Available, and when the observer heard it; resets.
    std::pair<bool, Clock::time_point> waitForPack() {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return outcome.has_value(); });
        return *std::exchange(outcome, std::nullopt);
    }

  private:
    void settle(bool available) {
        std::lock_guard lock(mutex);
        outcome = {available, Clock::now()};
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    bool initialized = false;
    std::optional<std::pair<bool, Clock::time_point>> outcome;
};

// A fresh service in an empty storage tree each round, started before the clock: the round is
// downloadPack until the pack is Available.
void BM_OfflineServiceDownloadAndVerify(benchmark::State& state) {
    using namespace terrane::common;
    OfflineDataRegionMetadata region;
    region.id = "bench";
    region.revision = 1;
    region.mapPack = OfflineDataPackMetadata{setup->nginx->url("/large.bin"), setup->largeDigest,
                                             setup->largeSize, 1, "1"};
    const auto observer = std::make_shared<PackObserver>();
    OfflineService::registerObserver(observer);
    const fs::path storage = setup->directory / "out" / "offline";
    for (auto _ : state) {
        fs::remove_all(storage);
        auto service = OfflineService::getInstance(
            storage.string(), OfflineServiceOptions{"bench", "token", setup->nginx->url("")});
        observer->waitForInitialized();
        const auto started = Clock::now();
        service->downloadPack(OfflineDataDomain::Maps, region);
        const auto [available, finished] = observer->waitForPack();
        service.reset();
        if (!available) {
            state.SkipWithError("the pack did not become Available");
            break;
        }
        const double seconds = std::chrono::duration<double>(finished - started).count();
        state.SetIterationTime(seconds);
        remember("offline service download and verify", seconds);
    }
    OfflineService::unregisterObserver(observer);
    fs::remove_all(storage);
    state.SetBytesProcessed(static_cast<std::int64_t>(setup->largeSize) * state.iterations());
    state.counters["peak_rss_MiB"] = peakRssMiB();
}

void BM_CurlToolDownloadLargeFile(benchmark::State& state) {
    const fs::path output = setup->directory / "out" / "curl.bin";
    for (auto _ : state) {
        const auto started = Clock::now();
        if (!terrane::bench::runQuietly(
                {kCurlTool, "-s", "-f", "-o", output.string(), setup->nginx->url("/large.bin")})) {
            state.SkipWithError("curl failed");
            return;
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
        state.SetIterationTime(seconds);
        remember("curl download", seconds);
        fs::remove(output);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(setup->largeSize) * state.iterations());
}

void BM_ServiceSmallRequests(benchmark::State& state) {
    const auto service = std::make_shared<CurlHttpService>();
    service->setMaxRequestsPerHost(kInFlight);
    for (auto _ : state) {
        std::mutex mutex;
        std::condition_variable done;
        int issued = 0;
        int finished = 0;
        int failures = 0;
        std::function<void()> issueNext;
        // Called under no lock: from here or from callbacks on the engine thread.
        issueNext = [&] {
            int index = 0;
            {
                std::lock_guard lock(mutex);
                if (issued == kSmallRequests) {
                    return;
                }
                index = issued++;
            }
            service->request(HttpRequest(setup->smallUrls[static_cast<std::size_t>(index)]),
                             [&](HttpResponse&& response) {
                                 const bool ok = response.result && response.result->code == 200;
                                 issueNext();
                                 // Counted last: the waiter tears everything down once all are.
                                 std::lock_guard lock(mutex);
                                 ++finished;
                                 failures += ok ? 0 : 1;
                                 done.notify_all();
                             });
        };
        const auto started = Clock::now();
        for (int slot = 0; slot < kInFlight; ++slot) {
            issueNext();
        }
        std::unique_lock lock(mutex);
        done.wait(lock, [&] { return finished == kSmallRequests; });
        const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
        if (failures > 0) {
            state.SkipWithError("some requests failed");
            return;
        }
        state.SetIterationTime(seconds);
        remember("service requests", seconds);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(kSmallRequests) * state.iterations());
}

void BM_CurlToolSmallRequests(benchmark::State& state) {
    const fs::path config = setup->directory / "small.curlrc";
    {
        std::ofstream out(config);
        for (const auto& url : setup->smallUrls) {
            out << "url = \"" << url << "\"\noutput = \"/dev/null\"\n";
        }
    }
    for (auto _ : state) {
        const auto started = Clock::now();
        if (!terrane::bench::runQuietly({kCurlTool, "-s", "-f", "--parallel", "--parallel-max",
                                         std::to_string(kInFlight), "-K", config.string()})) {
            state.SkipWithError("curl failed");
            return;
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
        state.SetIterationTime(seconds);
        remember("curl requests", seconds);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(kSmallRequests) * state.iterations());
}

// The tool first, then the service, so that neither gets a page cache the other warmed alone.
BENCHMARK(BM_CurlToolDownloadLargeFile)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ServiceDownloadLargeFile)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OfflineServiceDownloadAndVerify)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CurlToolSmallRequests)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ServiceSmallRequests)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if (!terrane::common::test::NginxServer::isInstalled() || ::access(kCurlTool, X_OK) != 0) {
        std::puts("http_download_bench: needs /usr/sbin/nginx and /usr/bin/curl; skipped");
        return 0;
    }
    benchmark::Initialize(&argc, argv);

    const char* temporary = std::getenv("TMPDIR");
    Setup state;
    state.directory = fs::path(temporary ? temporary : "/tmp") /
                      ("terrane_http_bench_" + std::to_string(::getpid()));
    fs::create_directories(state.directory / "www");
    fs::create_directories(state.directory / "out");
    const char* mib = std::getenv("TERRANE_BENCH_LARGE_MIB");
    state.largeSize = static_cast<std::uint64_t>(mib ? std::atoll(mib) : 1024) * 1024 * 1024;
    writeLargeFile(state.directory / "www" / "large.bin", state.largeSize);
    {
        std::ofstream small(state.directory / "www" / "small.bin");
        small << std::string(1024, 's');
    }
    state.largeDigest =
        terrane::common::util::md5File((state.directory / "www" / "large.bin").string())
            .value_or("");
    state.nginx = std::make_unique<terrane::common::test::NginxServer>(state.directory / "www",
                                                                       state.directory / "nginx");
    for (int index = 0; index < kSmallRequests; ++index) {
        state.smallUrls.push_back(state.nginx->url("/small.bin?i=" + std::to_string(index)));
    }
    setup = &state;

    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    const auto ratio = [](const char* ours, const char* theirs) {
        const auto a = bestSeconds.find(ours);
        const auto b = bestSeconds.find(theirs);
        return a == bestSeconds.end() || b == bestSeconds.end() ? 0.0 : b->second / a->second;
    };
    const double mebibytes = static_cast<double>(state.largeSize) / (1024.0 * 1024.0);
    using terrane::bench::format;
    if (bestSeconds.contains("service download") && bestSeconds.contains("curl download")) {
        const double download = ratio("service download", "curl download");
        std::printf(
            "large file %.0f MiB: service %.0f MiB/s, curl %.0f MiB/s, ratio %.2f (goal >= 0.95)\n",
            mebibytes, mebibytes / bestSeconds["service download"],
            mebibytes / bestSeconds["curl download"], download);
        terrane::bench::recordResult(
            {.work = "1 GiB download to file",
             .ours = format("%.0f MiB/s", mebibytes / bestSeconds["service download"]),
             .anchor = format("%.0f MiB/s", mebibytes / bestSeconds["curl download"]),
             .ratio = download,
             .goal = ">= 0.95",
             .met = download >= 0.95});
    }
    if (bestSeconds.contains("offline service download and verify") &&
        bestSeconds.contains("curl download")) {
        const double verify =
            bestSeconds["offline service download and verify"] / bestSeconds["curl download"];
        std::printf(
            "large file %.0f MiB as a pack to Available: %.2f s, curl download alone "
            "%.2f s, ratio %.2f (goal <= 1.1)\n",
            mebibytes, bestSeconds["offline service download and verify"],
            bestSeconds["curl download"], verify);
        terrane::bench::recordResult(
            {.work = "1 GiB download + verify",
             .ours = format("%.2f s", bestSeconds["offline service download and verify"]) +
                     format(", peak RSS %.1f MiB", peakRssMiB()),
             .anchor = format("%.2f s", bestSeconds["curl download"]),
             .ratio = verify,
             .goal = "<= 1.1",
             .met = verify <= 1.1 && peakRssMiB() < 32});
    }
    if (bestSeconds.contains("service requests") && bestSeconds.contains("curl requests")) {
        const double requests = ratio("service requests", "curl requests");
        std::printf(
            "%d small requests, %d in flight: service %.0f req/s, curl --parallel %.0f req/s, "
            "ratio %.2f\n",
            kSmallRequests, kInFlight, kSmallRequests / bestSeconds["service requests"],
            kSmallRequests / bestSeconds["curl requests"], requests);
        terrane::bench::recordResult(
            {.work = "1,000 small requests, 50 in flight",
             .ours = format("%.0f req/s", kSmallRequests / bestSeconds["service requests"]),
             .anchor = format("%.0f req/s", kSmallRequests / bestSeconds["curl requests"]),
             .ratio = requests,
             .goal = ">= 1.0",
             .met = requests >= 1.0});
    }
    std::printf("peak RSS of this process: %.1f MiB (goal < 32)\n", peakRssMiB());

    setup = nullptr;
    state.nginx.reset();
    std::error_code ignored;
    fs::remove_all(state.directory, ignored);
    return 0;
}
