// Start-up recovery of a storage tree with 10,000 stored revisions (1,000 regions of 10
// revisions, one verified maps pack each), against the floor of a plain walk over the same tree.
//
// Recovery: the time from OfflineService::getInstance until an observer hears onInitialized,
// by which point every pack has been read, checked and announced.
// Floor: a loop that lists the same directories, stats "configuration.json" and, per revision,
// stats and reads "metadata.json" and the pack's header record, and does nothing else.
//
// The tree goes to TERRANE_RECOVERY_BENCH_DIR if set, else /tmp/terrane-recovery-bench; it is
// generated when missing and kept for later runs. Both benchmarks run warm: the generator (or an
// earlier run) has just touched every file. The ratio of the two is printed at the end.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "bench_results.hpp"
#include "offline/offline_data_pack_headers.hpp"
#include "offline/offline_storage.hpp"
#include "terrane/offline/offline_service.hpp"
#include "terrane/offline/offline_service_observer.hpp"

namespace {

namespace fs = std::filesystem;
using namespace terrane::common;

constexpr int regionCount = 1000;
constexpr int revisionsPerRegion = 10;
constexpr int packCount = regionCount * revisionsPerRegion;
const OfflineServiceOptions options{"bench", "token", std::string("http://127.0.0.1:9")};

fs::path servicePath() {
    const char* configured = std::getenv("TERRANE_RECOVERY_BENCH_DIR");
    return configured != nullptr && *configured != '\0' ? configured
                                                        : "/tmp/terrane-recovery-bench";
}

fs::path treeRoot() {
    return storageRoot(servicePath(), *options.baseURL, options.username);
}

void writeFile(const fs::path& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    if (!out) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

OfflineDataRegionMetadata regionOf(int region, int revision) {
    OfflineDataRegionMetadata metadata;
    metadata.id = "region-" + std::to_string(region);
    metadata.revision = static_cast<std::uint32_t>(revision);
    metadata.name = "Region " + std::to_string(region);
    metadata.description = "A region of the recovery benchmark";
    metadata.last_updated = OfflineDataTimePoint(std::chrono::milliseconds(1'700'000'000'000));
    const double x = region % 360 - 180.0;
    const double y = region % 170 - 85.0;
    metadata.geography = terrane::geometry::polygon{terrane::geometry::linear_ring{
        {x, y}, {x + 0.5, y}, {x + 0.5, y + 0.5}, {x, y + 0.5}, {x, y}}};
    metadata.mapPack =
        OfflineDataPackMetadata{"terrane://offline-data/" + metadata.id + "/maps",
                                "0123456789abcdef0123456789abcdef", 123456789, 1, "2024.1"};
    return metadata;
}

// Generates the tree unless a previous run left it complete.
void ensureTree() {
    const fs::path root = treeRoot();
    const fs::path marker = servicePath() / "generated";
    if (fs::exists(marker)) {
        return;
    }
    std::printf("generating %d revisions below %s\n", packCount, root.c_str());
    fs::remove_all(servicePath());
    OfflineDataPackHeaders headers;
    headers.bytes = 123456789;
    headers.complete = true;
    headers.verified = true;
    headers.expires =
        terrane::common::util::TimePoint(std::chrono::milliseconds(4'000'000'000'000));
    headers.max_age = 86400;
    const std::string headerRecord = serializePackHeaders(headers);
    for (int region = 0; region < regionCount; ++region) {
        for (int revision = 1; revision <= revisionsPerRegion; ++revision) {
            const auto metadata = regionOf(region, revision);
            const fs::path directory = revisionDirectoryPath(root, metadata.id, metadata.revision);
            fs::create_directories(domainDirectoryPath(directory, OfflineDataDomain::Maps));
            writeFile(metadataFilePath(directory), serializeMetadata(metadata));
            writeFile(headerFilePath(packFilePath(directory, OfflineDataDomain::Maps, 1)),
                      headerRecord);
        }
    }
    writeFile(configurationFilePath(root), serializeConfiguration(*options.baseURL, "bench"));
    writeFile(marker, "");
}

class StartObserver : public OfflineServiceObserver {
  public:
    void onAvailable(OfflineDataDomain, const OfflineDataRegionMetadata&,
                     const OfflineDataPack&) override {
        ++available;
    }
    void onInitialized() override {
        std::lock_guard lock(mutex);
        initialized = true;
        changed.notify_all();
    }
    void onLogMessage(const std::string& message) override {
        std::fprintf(stderr, "log: %s\n", message.c_str());
    }

    // Waits for onInitialized and returns how many packs were announced before it; resets.
    int waitForInitialized() {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return initialized; });
        initialized = false;
        return std::exchange(available, 0);
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    bool initialized = false;
    // Written on the worker thread before onInitialized, read after it under the mutex.
    int available = 0;
};

void Recovery(benchmark::State& state) {
    ensureTree();
    auto observer = std::make_shared<StartObserver>();
    OfflineService::registerObserver(observer);
    for (auto _ : state) {
        const auto started = std::chrono::steady_clock::now();
        auto service = OfflineService::getInstance(servicePath().string(), options);
        const int announced = observer->waitForInitialized();
        const auto finished = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(finished - started).count());
        if (announced != packCount) {
            state.SkipWithError("not every stored pack was recovered");
        }
        // Ending the service (draining its queue, joining its thread) is not part of start-up.
        service.reset();
    }
    OfflineService::unregisterObserver(observer);
    state.counters["revisions"] = packCount;
}

// Stats and reads a whole file with plain system calls.
std::size_t statAndRead(const fs::path& path, std::array<char, 64 * 1024>& buffer) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return 0;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    std::size_t total = 0;
    for (;;) {
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count <= 0) {
            break;
        }
        total += static_cast<std::size_t>(count);
    }
    ::close(fd);
    return total;
}

void Floor(benchmark::State& state) {
    ensureTree();
    const fs::path root = treeRoot();
    std::array<char, 64 * 1024> buffer;
    for (auto _ : state) {
        const auto started = std::chrono::steady_clock::now();
        std::size_t bytes = 0;
        int revisions = 0;
        struct stat status {};
        benchmark::DoNotOptimize(::stat(configurationFilePath(root).c_str(), &status));
        for (const auto& region : fs::directory_iterator(root)) {
            if (!region.is_directory()) {
                continue;
            }
            for (const auto& revision : fs::directory_iterator(region.path())) {
                if (!revision.is_directory()) {
                    continue;
                }
                bytes += statAndRead(metadataFilePath(revision.path()), buffer);
                bytes += statAndRead(
                    headerFilePath(packFilePath(revision.path(), OfflineDataDomain::Maps, 1)),
                    buffer);
                ++revisions;
            }
        }
        const auto finished = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(finished - started).count());
        benchmark::DoNotOptimize(bytes);
        if (revisions != packCount) {
            state.SkipWithError("the walk did not find every revision");
        }
    }
}

BENCHMARK(Floor)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(Recovery)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

// Passes everything to the console and keeps the mean time per iteration of each benchmark.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                times[run.run_name.function_name] = run.GetAdjustedRealTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    if (reporter.times.contains("Recovery") && reporter.times.contains("Floor")) {
        const double ratio = reporter.times["Recovery"] / reporter.times["Floor"];
        std::printf("recovery / floor = %.2f\n", ratio);
        terrane::bench::recordResult(
            {.work = "start-up with 10,000 stored revisions",
             .ours = terrane::bench::format("%.0f ms", reporter.times["Recovery"]),
             .anchor = terrane::bench::format("%.0f ms", reporter.times["Floor"]),
             .ratio = ratio,
             .goal = "<= 2",
             .met = ratio <= 2});
    }
    return 0;
}
