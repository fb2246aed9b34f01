// Start-up: the storage root, and the recovery of every region revision and pack stored below it.
//
// Nothing found on disk may stop the service, so every file system call that can fail either
// reports through an error value or is caught at the smallest scope that can carry on: a failing
// revision is left out, a region directory that cannot be read is left out, and a storage root
// that cannot be read leaves the service with nothing recovered.

#include <rapidjson/document.h>

#include <charconv>
#include <chrono>
#include <exception>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "offline/offline_service_worker.hpp"
#include "offline/offline_storage.hpp"
#include "offline/pack_paths.hpp"
#include "util/file_io.hpp"
#include "value/json_reader.hpp"

namespace terrane::common {

namespace fs = std::filesystem;

namespace {

constexpr OfflineDataDomain domains[] = {OfflineDataDomain::Maps, OfflineDataDomain::Navigation};

// A revision directory is named by its number in decimal: digits only, 1 to 4294967295. Leading
// zeros are tolerated (007 is revision 7); a sign, blanks, 0 and anything out of range are not.
optional<std::uint32_t> parseRevisionName(const std::string& name) {
    std::uint32_t revision = 0;
    const char* const end = name.data() + name.size();
    // from_chars takes no sign and no blanks for an unsigned type, and reports overflow.
    const auto [stop, error] = std::from_chars(name.data(), end, revision);
    if (name.empty() || error != std::errc() || stop != end || revision == 0) {
        return nullopt;
    }
    return revision;
}

util::TimePoint currentTime() {
    return std::chrono::time_point_cast<util::TimePoint::duration>(
        std::chrono::system_clock::now());
}

}  // namespace

void OfflineServiceWorker::removeInterruptedWrites(const fs::path& directory) const {
    // Only a holder that died can have left temporaries, so an orderly tree is not listed
    // directory by directory; the tree is ours alone now, so nobody else's write is in flight.
    if (storageLock.previousHolderDied()) {
        base::io::removeInterruptedWrites(directory);
    }
}

void OfflineServiceWorker::initialize() {
    std::error_code error;
    fs::create_directories(root, error);
    if (error) {
        logMessage("Failed to read existing offline packs: %s", error.message().c_str());
        return;
    }

    const fs::path configuration = configurationFilePath(root);
    const fs::file_status configurationStatus = fs::status(configuration, error);
    if (configurationStatus.type() == fs::file_type::not_found) {
        // The record only marks the tree as ours; a tree that cannot be marked can still be
        // used, so a failed write is not worth a word.
        (void)base::io::writeFileAtomically(configuration,
                                            serializeConfiguration(baseURL, username));
    } else if (error) {
        logMessage("Failed to read existing offline packs: %s", error.message().c_str());
        return;
    }

    removeInterruptedWrites(root);
    try {
        for (const fs::directory_entry& entry : fs::directory_iterator(root)) {
            // Follows links. Anything that is not a directory, or whose type cannot even be
            // told (a link loop), is not a region: passed over like "configuration.json".
            std::error_code typeError;
            if (entry.is_directory(typeError)) {
                loadExistingRegion(entry.path());
            }
        }
    } catch (const std::exception& failure) {
        logMessage("Failed to read existing offline packs: %s", failure.what());
    }
}

void OfflineServiceWorker::loadExistingRegion(const fs::path& regionDirectory) {
    const std::string regionId = regionDirectory.filename().string();
    removeInterruptedWrites(regionDirectory);
    try {
        for (const fs::directory_entry& entry : fs::directory_iterator(regionDirectory)) {
            try {
                loadExistingRevision(regionId, entry);
            } catch (const std::exception& failure) {
                logMessage("Failed to read existing offline pack: %s", failure.what());
            }
        }
    } catch (const std::exception& failure) {
        // This region's directory cannot be listed (any further); the other regions can.
        logMessage("Failed to read existing offline packs: %s", failure.what());
    }
}

void OfflineServiceWorker::loadExistingRevision(const std::string& regionId,
                                                const fs::directory_entry& entry) {
    const std::string name = entry.path().filename().string();
    const auto skip = [&](const char* reason) {
        logMessage("Skipping revision %s of offline region '%s': %s", name.c_str(),
                   regionId.c_str(), reason);
    };

    // Follows links; a dangling one is simply not a directory. Other failures to tell the type
    // (a link loop, a directory we may not search) throw and are reported by the caller.
    if (!entry.is_directory()) {
        // Hidden files (editor and OS droppings, our own temporaries) are nobody's revision.
        if (!name.starts_with('.')) {
            skip("Not a directory");
        }
        return;
    }
    if (!parseRevisionName(name)) {
        skip("Invalid revision name");
        return;
    }

    const fs::path& revisionDirectory = entry.path();
    removeInterruptedWrites(revisionDirectory);
    const fs::path metadataPath = metadataFilePath(revisionDirectory);
    if (!fs::exists(metadataPath)) {
        skip("Missing metadata file");
        return;
    }
    const auto text = base::io::readFile(metadataPath);
    rapidjson::Document document;
    if (!text || !json::parseDocument(*text, document)) {
        skip("Invalid metadata file");
        return;
    }
    // The id is the directory's name, so it is a valid directory name by construction.
    const rapidjson::Value id(
        rapidjson::StringRef(regionId.data(), static_cast<rapidjson::SizeType>(regionId.size())));
    auto metadata = parseRegionMetadata(id, document);
    if (!metadata) {
        skip(metadata.error().message.c_str());
        return;
    }

    OfflineDataRegionInternal region(std::move(*metadata));
    for (const auto domain : domains) {
        if (const auto& pack = region.getPackMetadata(domain)) {
            loadExistingPack(region.getPackHolder(domain), revisionDirectory, domain, *pack);
        }
    }
    if (!region.mapsHolder.visible() && !region.navigationHolder.visible()) {
        // Its files stay where they are; a later download of the revision will reuse the
        // directory.
        logMessage("Ignoring revision %s of offline region '%s': %s", name.c_str(),
                   regionId.c_str(), "No downloaded files");
        return;
    }

    auto key = region.key();
    auto& stored = regions.insert_or_assign(std::move(key), std::move(region)).first->second;
    const util::TimePoint now = currentTime();
    for (const auto domain : domains) {
        if (stored.getPackMetadata(domain)) {
            recoverPack(stored, domain, now);
        }
    }
}

namespace {

// The size of a regular file (links followed), if it has one.
optional<std::uint64_t> regularFileSize(const fs::path& path) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) {
        return nullopt;
    }
    const std::uintmax_t size = fs::file_size(path, error);
    return error ? nullopt : optional<std::uint64_t>(size);
}

}  // namespace

void OfflineServiceWorker::loadExistingPack(OfflineDataPackHolder& holder,
                                            const fs::path& revisionDirectory,
                                            OfflineDataDomain domain,
                                            const OfflineDataPackMetadata& pack) {
    const fs::path packFile = packFilePath(revisionDirectory, domain, pack.format);
    const fs::path downloadFile = downloadFilePath(packFile);
    removeInterruptedWrites(packFile.parent_path());
    // readFile takes regular files only (links followed): a directory, a special file, a
    // missing or unreadable record all fail here alike.
    const auto text = base::io::readFile(headerFilePath(packFile));
    auto headers = text ? parsePackHeaders(*text) : nullopt;
    // A pack file of the right size without a record that vouches for it is what a stop between
    // the verification's rename and its record leaves: checked again rather than thrown away.
    const bool packFileToCheck = (!headers || (headers->complete && !headers->verified)) &&
                                 !regularFileSize(downloadFile) &&
                                 regularFileSize(packFile) == pack.bytes;
    if (!headers && !packFileToCheck) {
        // Without its header record nothing says how far the pack got, so whatever files lie
        // beside it do not count as a pack.
        holder.setDeleted();
        return;
    }
    if (!headers) {
        headers.emplace();
        headers->complete = true;
        headers->bytes = pack.bytes;
    }

    holder.headers = std::move(*headers);
    std::uint64_t bytes = holder.headers.bytes;
    if (!holder.headers.complete) {
        // The bytes received so far are in the HTTP service's partial file (or, once it has
        // finished, in the download file), whatever the record said when the download began.
        const fs::path partialFile = downloadFile.string() + std::string(partialDownloadSuffix);
        bytes =
            regularFileSize(partialFile).value_or(regularFileSize(downloadFile).value_or(bytes));
        holder.restore(OfflineDataPackStatus::Incomplete, downloadFile.string(), bytes);
    } else if (!holder.headers.verified) {
        holder.restore(OfflineDataPackStatus::Verifying,
                       packFileToCheck ? packFile.string() : downloadFile.string(), bytes);
    } else {
        holder.restore(
            holder.isExpired() ? OfflineDataPackStatus::Expired : OfflineDataPackStatus::Available,
            packFile.string(), bytes);
    }
}

void OfflineServiceWorker::recoverPack(OfflineDataRegionInternal& region, OfflineDataDomain domain,
                                       util::TimePoint now) {
    const OfflineDataPackHolder& holder = region.getPackHolder(domain);
    const PackKey key{region.key(), domain, holder.generation()};
    if (holder.status() == OfflineDataPackStatus::Verifying) {
        // The verification was cut short by the last shutdown.
        proxy.post(TaskPriority::Normal, &OfflineServiceWorker::verifyPackDownload, key);
    }
    if (holder.needsLeaseRenewal(now)) {
        proxy.post(TaskPriority::Normal, &OfflineServiceWorker::extendPackDownloadLease, key);
    }
    if (holder.visible()) {
        notifyPack(domain, region.metadata, holder.pack());
    }
}

}  // namespace terrane::common
