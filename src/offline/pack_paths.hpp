#pragma once

#include <filesystem>
#include <string_view>

#include "offline/context.hpp"

// The files of one pack, as the pack operations (download, verification, lease, deletion) name
// them. Pure path arithmetic over the storage layout: no file system access, any thread, and the
// result belongs to the caller.

namespace terrane::common {

// What an HTTP service may keep beside a download file so that an interrupted transfer can go
// on: the bytes received so far, and the resume record. The platform service of this library
// uses these names; a pack deletion removes them with the rest.
inline constexpr std::string_view partialDownloadSuffix = ".part";
inline constexpr std::string_view resumeDataSuffix = ".rd";

// The pack is Errored with Corrupt and this message when its file is not of the size the
// catalogue gave.
inline constexpr std::string_view unexpectedSizeMessage = "File doesn't have expected size";

struct PackPaths {
    // <root>/<region id>/<revision>
    std::filesystem::path revisionDirectory;
    // <revision dir>/metadata.json
    std::filesystem::path metadataFile;
    // <revision dir>/<domain>/<format>: the verified pack.
    std::filesystem::path packFile;
    // The pack file + ".tmp": the pack while it is downloaded and until it is verified.
    std::filesystem::path downloadFile;
    // The pack file with extension "json": the pack's header record.
    std::filesystem::path headerFile;
    // The download file + ".part" and + ".rd".
    std::filesystem::path partialFile;
    std::filesystem::path resumeDataFile;
};

// The files of the context's pack below the storage root. The region id must have passed
// isValidRegionId (the public operations refuse other ids before any context exists).
PackPaths packPaths(const std::filesystem::path& root, const Context& context);

}  // namespace terrane::common
