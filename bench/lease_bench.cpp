// Lease extension of 10,000 stored packs at start-up, against nginx on loopback, beside one curl
// process that sends the same 10,000 conditional HEAD requests over one keep-alive connection.
//
// Ours: the time from OfflineService::getInstance until onIdle, which the service sends once the
// last extension has been answered (each answer a 304 whose renewed lease is written to the pack's
// header record). Before every round the header records are written again with a lease in its
// second half, so that every pack is extended again.
// Anchor: `curl -I -H "If-None-Match: <tag>"` over a config file listing the 10,000 addresses.
//
// Best of three rounds, the two alternating. Needs /usr/sbin/nginx and /usr/bin/curl; without
// them it says so and exits 0. Files go to a directory under TMPDIR (default /tmp), removed at
// the end.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench_results.hpp"
#include "bench_support.hpp"
#include "offline/offline_data_pack_headers.hpp"
#include "offline/offline_storage.hpp"
#include "offline/region_catalogue.hpp"
#include "terrane/offline/offline_service.hpp"
#include "terrane/offline/offline_service_observer.hpp"
#include "testing/nginx_server.hpp"
#include "util/file_io.hpp"

namespace {

namespace fs = std::filesystem;
using namespace terrane::common;
using Clock = std::chrono::steady_clock;

constexpr const char* curlTool = "/usr/bin/curl";
constexpr int packCount = 10'000;
constexpr int rounds = 3;
// Every stored pack names the same file, which nginx answers with 304 to its own entity tag.
constexpr const char* packAddress = "terrane://offline-data/packs/maps";
constexpr const char* packFile = "offline-data/v1/packs/maps";

void writeFile(const fs::path& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    if (!out) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

// nginx's entity tag for a static file: modification time and size in hexadecimal.
std::string nginxEntityTag(const fs::path& path) {
    struct stat status {};
    ::stat(path.c_str(), &status);
    char tag[64];
    std::snprintf(tag, sizeof tag, "\"%llx-%llx\"",
                  static_cast<unsigned long long>(status.st_mtime),
                  static_cast<unsigned long long>(status.st_size));
    return tag;
}

OfflineDataRegionMetadata regionOf(int region) {
    OfflineDataRegionMetadata metadata;
    metadata.id = "region-" + std::to_string(region);
    metadata.revision = 1;
    metadata.name = "Region " + std::to_string(region);
    metadata.last_updated = OfflineDataTimePoint(std::chrono::milliseconds(1'700'000'000'000));
    metadata.mapPack =
        OfflineDataPackMetadata{packAddress, "0123456789abcdef0123456789abcdef", 4, 1, "2024.1"};
    return metadata;
}

struct Tree {
    fs::path servicePath;
    OfflineServiceOptions options;
    std::vector<fs::path> headerFiles;
};

void writeTree(Tree& tree) {
    const fs::path root =
        storageRoot(tree.servicePath, *tree.options.baseURL, tree.options.username);
    for (int region = 0; region < packCount; ++region) {
        const auto metadata = regionOf(region);
        const fs::path directory = revisionDirectoryPath(root, metadata.id, metadata.revision);
        fs::create_directories(domainDirectoryPath(directory, OfflineDataDomain::Maps));
        writeFile(metadataFilePath(directory), serializeMetadata(metadata));
        tree.headerFiles.push_back(
            headerFilePath(packFilePath(directory, OfflineDataDomain::Maps, 1)));
    }
    writeFile(configurationFilePath(root),
              serializeConfiguration(*tree.options.baseURL, tree.options.username));
}

// Every pack verified, its lease a minute from running out of an hour: due for extension.
void writeLeases(const Tree& tree, const std::string& entityTag) {
    OfflineDataPackHeaders headers;
    headers.bytes = 4;
    headers.complete = true;
    headers.verified = true;
    headers.expires = std::chrono::time_point_cast<util::TimePoint::duration>(
        std::chrono::system_clock::now() + std::chrono::minutes(1));
    headers.max_age = 3600;
    headers.etag = entityTag;
    const std::string record = serializePackHeaders(headers);
    for (const auto& path : tree.headerFiles) {
        writeFile(path, record);
    }
}

class LeaseObserver : public OfflineServiceObserver {
  public:
    void onAvailable(OfflineDataDomain, const OfflineDataRegionMetadata&,
                     const OfflineDataPack&) override {
        ++available;
    }
    void onIdle() override {
        std::lock_guard lock(mutex);
        idle = true;
        changed.notify_all();
    }
    void onLogMessage(const std::string& message) override {
        if (++logged <= 3) {
            std::fprintf(stderr, "log: %s\n", message.c_str());
        }
    }

    // Waits for onIdle; returns the packs announced Available and the log messages, and resets.
    std::pair<int, int> waitForIdle() {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return idle; });
        idle = false;
        return {std::exchange(available, 0), std::exchange(logged, 0)};
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    bool idle = false;
    // Written on the worker thread before onIdle, read after it under the mutex.
    int available = 0;
    int logged = 0;
};

double serviceSeconds(const Tree& tree, LeaseObserver& observer) {
    const auto started = Clock::now();
    auto service = OfflineService::getInstance(tree.servicePath.string(), tree.options);
    const auto [available, logged] = observer.waitForIdle();
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    service.reset();
    if (available != packCount || logged != 0) {
        std::fprintf(stderr, "%d packs available, %d log messages: not every lease was extended\n",
                     available, logged);
        std::exit(1);
    }
    const auto renewed =
        parsePackHeaders(terrane::base::io::readFile(tree.headerFiles.back()).value_or(""));
    if (!renewed ||
        renewed->expires < std::chrono::time_point_cast<util::TimePoint::duration>(
                               std::chrono::system_clock::now() + std::chrono::minutes(30))) {
        std::fprintf(stderr, "the last pack's lease was not renewed\n");
        std::exit(1);
    }
    return seconds;
}

double curlSeconds(const fs::path& config, const std::string& entityTag) {
    const auto started = Clock::now();
    if (!terrane::bench::runQuietly({curlTool, "-s", "-f", "-I", "-H",
                                     "If-None-Match: " + entityTag, "-K", config.string()})) {
        std::fprintf(stderr, "curl failed\n");
        std::exit(1);
    }
    return std::chrono::duration<double>(Clock::now() - started).count();
}

}  // namespace

int main() {
    if (!test::NginxServer::isInstalled() || ::access(curlTool, X_OK) != 0) {
        std::puts("lease_bench: needs /usr/sbin/nginx and /usr/bin/curl; skipped");
        return 0;
    }
    const char* temporary = std::getenv("TMPDIR");
    const fs::path directory = fs::path(temporary ? temporary : "/tmp") /
                               ("terrane_lease_bench_" + std::to_string(::getpid()));
    fs::create_directories(directory / "www" / fs::path(packFile).parent_path());
    writeFile(directory / "www" / packFile, "pack");
    const std::string entityTag = nginxEntityTag(directory / "www" / packFile);
    double ours = 1e9;
    double anchor = 1e9;
    {
        test::NginxServer nginx(directory / "www", directory / "nginx");
        Tree tree{
            directory / "service", OfflineServiceOptions{"bench", "token", nginx.url("")}, {}};
        std::printf("writing %d stored packs below %s\n", packCount, tree.servicePath.c_str());
        writeTree(tree);
        const fs::path config = directory / "heads.curlrc";
        {
            std::ofstream out(config);
            const std::string address =
                expandOfflineDataURL(packAddress, *tree.options.baseURL, tree.options.accessToken);
            for (int pack = 0; pack < packCount; ++pack) {
                out << "url = \"" << address << "\"\n";
            }
        }
        auto observer = std::make_shared<LeaseObserver>();
        OfflineService::registerObserver(observer);
        for (int round = 0; round < rounds; ++round) {
            const double theirs = curlSeconds(config, entityTag);
            writeLeases(tree, entityTag);
            const double extended = serviceSeconds(tree, *observer);
            std::printf("round %d: service %.0f ms, curl %.0f ms\n", round, extended * 1e3,
                        theirs * 1e3);
            ours = std::min(ours, extended);
            anchor = std::min(anchor, theirs);
        }
        OfflineService::unregisterObserver(observer);
    }
    std::error_code ignored;
    fs::remove_all(directory, ignored);

    const double ratio = ours / anchor;
    std::printf("lease extension of %d packs: service %.0f ms, curl %.0f ms, ratio %.2f\n",
                packCount, ours * 1e3, anchor * 1e3, ratio);
    using terrane::bench::format;
    terrane::bench::recordResult({.work = "lease extension of 10,000 stored packs",
                                  .ours = format("%.0f ms", ours * 1e3),
                                  .anchor = format("%.0f ms", anchor * 1e3),
                                  .ratio = ratio,
                                  .goal = "<= 1.5",
                                  .met = ratio <= 1.5});
    return 0;
}
