#include "testing/storage_tree.hpp"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "offline/offline_storage.hpp"
#include "offline/region_catalogue.hpp"
#include "util/file_io.hpp"

namespace terrane::common::test {

TemporaryDirectory::TemporaryDirectory() {
    static std::atomic<unsigned> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            ("terrane-test-" + std::to_string(::getpid()) + "-" +
             std::to_string(std::random_device{}()) + "-" + std::to_string(counter++));
    std::filesystem::create_directories(path_);
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::map<std::string, std::string> treeContents(const std::filesystem::path& directory) {
    std::map<std::string, std::string> contents;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (entry.is_regular_file()) {
            contents[std::filesystem::relative(entry.path(), directory).string()] =
                base::io::readFile(entry.path()).value_or("<unreadable>");
        }
    }
    return contents;
}

std::vector<std::string> filesContaining(const std::filesystem::path& directory,
                                         std::string_view needle) {
    std::vector<std::string> found;
    if (needle.empty() || !std::filesystem::exists(directory)) {
        return found;
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        const std::string relative = std::filesystem::relative(entry.path(), directory).string();
        const std::string text =
            entry.is_regular_file() ? base::io::readFile(entry.path()).value_or("") : "";
        if (redactSecret(relative + "\n" + text, needle) != relative + "\n" + text) {
            found.push_back(relative);
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

StorageTree::StorageTree(const std::filesystem::path& servicePath, std::string_view baseURL,
                         std::string_view username)
    : root_(storageRoot(servicePath, baseURL, username)) {
}

std::filesystem::path StorageTree::packFile(std::string_view regionId,
                                            std::string_view revisionName,
                                            OfflineDataDomain domain) const {
    return root_ / regionId / revisionName / toString(domain) /
           std::to_string(expectedFormat(domain));
}

void StorageTree::writeMetadata(std::string_view revisionName,
                                const OfflineDataRegionMetadata& region) {
    writeFile(std::filesystem::path(region.id) / revisionName / metadataFileName,
              serializeMetadata(region));
}

void StorageTree::writeHeaders(std::string_view regionId, std::string_view revisionName,
                               OfflineDataDomain domain, const OfflineDataPackHeaders& headers) {
    writeFile(headerFilePath(packFile(regionId, revisionName, domain)),
              serializePackHeaders(headers));
}

void StorageTree::writeFile(const std::filesystem::path& file, std::string_view contents) {
    const auto path = root_ / file;  // an absolute `file` stays as it is
    std::filesystem::create_directories(path.parent_path());
    if (auto written = base::io::writeFileAtomically(path, contents); !written) {
        throw std::runtime_error("cannot write " + path.string() + ": " + written.error());
    }
}

OfflineDataRegionMetadata sampleRegion(std::string id, std::uint32_t revision, bool maps,
                                       bool navigation) {
    OfflineDataRegionMetadata region;
    region.id = std::move(id);
    region.revision = revision;
    region.name = "Sample";
    region.description = "A region for tests";
    region.last_updated = OfflineDataTimePoint(std::chrono::milliseconds(1'700'000'000'000));
    region.geography =
        geometry::polygon{geometry::linear_ring{{0, 0}, {1, 0}, {1, 1}, {0, 1}, {0, 0}}};
    if (maps) {
        region.mapPack = OfflineDataPackMetadata{"terrane://offline-data/maps.bin",
                                                 "0123456789abcdef0123456789abcdef", 4096, 1, "v1"};
    }
    if (navigation) {
        region.navigationPack =
            OfflineDataPackMetadata{"terrane://offline-data/navigation.bin",
                                    "fedcba9876543210fedcba9876543210", 2048, 1, ""};
    }
    return region;
}

}  // namespace terrane::common::test
