// Measures the verification of a downloaded 1 GiB pack by the offline worker (size check, MD5,
// rename to the final name, header record written and flushed) against `openssl dgst -md5` of the
// same file, alternating the two with a warm page cache, then a small pack through Google
// Benchmark.
//
// The tree lives in TERRANE_VERIFICATION_BENCH_DIR if set, else in a fresh directory below /tmp;
// it is removed, 1 GiB file included, before the program ends.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "offline/offline_service_worker.hpp"
#include "offline/offline_storage.hpp"
#include "terrane/util/md5.hpp"
#include "testing/manual_worker.hpp"
#include "util/file_io.hpp"

namespace {

namespace fs = std::filesystem;
using namespace terrane::common;

constexpr std::uint64_t largePack = std::uint64_t{1} << 30;
constexpr std::uint64_t smallPack = std::uint64_t{1} << 20;
constexpr int rounds = 3;
const OfflineServiceOptions options{"bench", "token", "http://127.0.0.1:9"};

double seconds(std::chrono::steady_clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

// One stored region revision with a maps pack of `size` bytes, downloaded but not yet verified.
class StoredPack {
  public:
    StoredPack(const fs::path& servicePath, const std::string& regionId, std::uint64_t size)
        : servicePath(servicePath), size(size) {
        const fs::path root = storageRoot(servicePath, *options.baseURL, options.username);
        const fs::path revision = revisionDirectoryPath(root, regionId, 1);
        packFile = packFilePath(revision, OfflineDataDomain::Maps, 1);
        downloadFile = downloadFilePath(packFile);
        fs::create_directories(packFile.parent_path());
        writeContent();
        digest = util::md5File(downloadFile.string()).value_or("");

        region.id = regionId;
        region.revision = 1;
        region.mapPack =
            OfflineDataPackMetadata{"terrane://offline-data/pack", digest, size, 1, ""};
        writeOrDie(metadataFilePath(revision), serializeMetadata(region));
    }

    // Puts the file back under its download name with an unverified header record, as a
    // download that has just finished leaves it.
    void reset() const {
        if (fs::exists(packFile)) {
            fs::rename(packFile, downloadFile);
        }
        OfflineDataPackHeaders headers;
        headers.complete = true;
        writeOrDie(headerFilePath(packFile), serializePackHeaders(headers));
    }

    // Starts a worker on the tree (it queues the verification), then times the verification.
    double timeVerification() const {
        reset();
        test::ManualWorker worker(servicePath.string(), options, {});
        const auto start = std::chrono::steady_clock::now();
        worker.runPending();
        const auto elapsed = std::chrono::steady_clock::now() - start;
        const auto& holder = worker->getRegions().at({region.id, 1}).mapsHolder;
        if (holder.status() != OfflineDataPackStatus::Available) {
            throw std::runtime_error("the verification did not make the pack Available");
        }
        return seconds(elapsed);
    }

    // Wall time of one `openssl dgst -md5` run on the download file, process start-up included.
    double timeOpenssl() const {
        reset();
        const std::string command = "openssl dgst -md5 -r '" + downloadFile.string() + "'";
        const auto start = std::chrono::steady_clock::now();
        std::FILE* pipe = ::popen(command.c_str(), "r");
        if (pipe == nullptr) {
            throw std::runtime_error("cannot run " + command);
        }
        char line[512] = {};
        const bool read = std::fgets(line, sizeof line, pipe) != nullptr;
        const int status = ::pclose(pipe);
        const auto elapsed = std::chrono::steady_clock::now() - start;
        if (!read || status != 0 || std::string(line, 32) != digest) {
            throw std::runtime_error("openssl failed or disagrees: " + std::string(line));
        }
        return seconds(elapsed);
    }

    const std::string& checksum() const { return digest; }

  private:
    static void writeOrDie(const fs::path& path, const std::string& text) {
        if (auto written = terrane::base::io::writeFileAtomically(path, text); !written) {
            throw std::runtime_error("cannot write " + path.string() + ": " + written.error());
        }
    }

    // Pseudo-random bytes, so that nothing on the way can shortcut the work.
    void writeContent() const {
        std::ofstream out(downloadFile, std::ios::binary | std::ios::trunc);
        std::vector<std::uint32_t> block((std::size_t{1} << 20) / sizeof(std::uint32_t));
        std::uint32_t state = 2463534242u;
        for (std::uint64_t written = 0; written < size; written += block.size() * 4) {
            for (auto& word : block) {
                state ^= state << 13;
                state ^= state >> 17;
                state ^= state << 5;
                word = state;
            }
            const auto chunk = std::min<std::uint64_t>(block.size() * 4, size - written);
            out.write(reinterpret_cast<const char*>(block.data()),
                      static_cast<std::streamsize>(chunk));
        }
        if (!out.flush()) {
            throw std::runtime_error("cannot write " + downloadFile.string());
        }
    }

    fs::path servicePath;
    std::uint64_t size;
    fs::path packFile;
    fs::path downloadFile;
    std::string digest;
    OfflineDataRegionMetadata region;
};

fs::path benchDirectory() {
    const char* configured = std::getenv("TERRANE_VERIFICATION_BENCH_DIR");
    if (configured != nullptr && *configured != '\0') {
        return configured;
    }
    return fs::temp_directory_path() / ("terrane-verification-bench-" + std::to_string(::getpid()));
}

int compareWithOpenssl(const fs::path& directory) {
    const StoredPack pack(directory, "large", largePack);
    // Warms the page cache for both sides.
    (void)pack.timeOpenssl();

    double bestOurs = 1e300;
    double bestOpenssl = 1e300;
    for (int round = 0; round < rounds; ++round) {
        const double opensslTime = pack.timeOpenssl();
        const double ourTime = pack.timeVerification();
        std::printf("round %d: verification %.3f s, openssl dgst -md5 %.3f s\n", round + 1, ourTime,
                    opensslTime);
        bestOurs = std::min(bestOurs, ourTime);
        bestOpenssl = std::min(bestOpenssl, opensslTime);
    }
    const double mib = static_cast<double>(largePack) / (1024.0 * 1024.0);
    std::printf("pack of %.0f MiB, digest %s\n", mib, pack.checksum().c_str());
    std::printf("verification       %8.3f s  %8.1f MiB/s (best of %d)\n", bestOurs, mib / bestOurs,
                rounds);
    std::printf("openssl dgst -md5  %8.3f s  %8.1f MiB/s (best of %d)\n", bestOpenssl,
                mib / bestOpenssl, rounds);
    std::printf("ratio verification/openssl %.3f (limit 1.100)\n", bestOurs / bestOpenssl);
    return bestOurs / bestOpenssl <= 1.1 ? 0 : 2;
}

void smallPackVerification(benchmark::State& state) {
    static const fs::path directory = benchDirectory();
    static const StoredPack pack(directory, "small", smallPack);
    for (auto _ : state) {
        state.SetIterationTime(pack.timeVerification());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(smallPack));
}
BENCHMARK(smallPackVerification)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    const fs::path directory = benchDirectory();
    fs::create_directories(directory);
    int status = 0;
    try {
        status = compareWithOpenssl(directory);
        // The large pack is not needed any more; the small one lives in the same tree.
        std::error_code ignored;
        fs::remove_all(directory, ignored);
        fs::create_directories(directory);
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        status = 1;
    }
    benchmark::Shutdown();
    std::error_code ignored;
    fs::remove_all(directory, ignored);
    return status;
}
