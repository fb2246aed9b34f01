#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/geometry/geometry.hpp"

// The plain records that the offline data service hands between its facade, its worker thread,
// its files and its observers. They carry no behaviour and no synchronisation: copy them freely,
// use each copy from one thread at a time.

namespace terrane::common {

// The catalogue endpoint used when OfflineServiceOptions::baseURL is absent or empty.
inline constexpr std::string_view defaultCatalogueEndpoint = "https://api.terrane.dev";

// A region offers at most one pack per domain.
enum class OfflineDataDomain : std::uint32_t {
    Maps = 0,
    Navigation = 1,
};

enum class OfflineDataErrorCode : std::uint32_t {
    Unknown = 0,
    NotFound = 1,
    Unauthorized = 2,
    RateLimited = 3,
    Connection = 4,
    Server = 5,
    // Every JSON document we cannot make sense of, from the catalogue or from our own files.
    InvalidResponse = 6,
    Corrupt = 7,
    Filesystem = 8,
};

struct OfflineDataError {
    OfflineDataErrorCode code = OfflineDataErrorCode::Unknown;
    std::string message;

    friend bool operator==(const OfflineDataError&, const OfflineDataError&) = default;
};

// A pack as the catalogue describes it.
struct OfflineDataPackMetadata {
    // May be a "terrane://" address, which the worker expands against its base URL.
    std::string url;
    // Lower-case hexadecimal MD5 of the pack file.
    std::string md5_checksum;
    // Expected size of the pack file ("size" on the wire).
    std::uint64_t bytes = 0;
    // Pack file format; see expectedFormat().
    std::uint32_t format = 0;
    // Empty when the catalogue names no version.
    std::string data_version;

    friend bool operator==(const OfflineDataPackMetadata&,
                           const OfflineDataPackMetadata&) = default;
};

using OfflineDataTimePoint =
    std::chrono::time_point<std::chrono::system_clock, std::chrono::milliseconds>;

// One revision of one region.
struct OfflineDataRegionMetadata {
    std::string id;
    std::uint32_t revision = 0;
    std::string name;
    std::string description;
    // The Unix epoch when the source names no time.
    OfflineDataTimePoint last_updated{};
    // The empty alternative means that the region has no outline.
    geometry::geometry geography;
    optional<OfflineDataPackMetadata> mapPack;
    optional<OfflineDataPackMetadata> navigationPack;

    friend bool operator==(const OfflineDataRegionMetadata&,
                           const OfflineDataRegionMetadata&) = default;
};

// The life states of a pack; each has its own observer callback.
enum class OfflineDataPackStatus : std::uint32_t {
    Pending = 0,
    Downloading = 1,
    Incomplete = 2,
    Verifying = 3,
    Available = 4,
    Expired = 5,
    Errored = 6,
    Deleting = 7,
    Deleted = 8,
};

// The state of one pack as observers are told it.
struct OfflineDataPack {
    OfflineDataPackStatus status = OfflineDataPackStatus::Deleted;
    // Set in Errored, and wherever a failure is being reported with another state.
    optional<OfflineDataError> error;
    // The pack's file on disk (the download file while incomplete or being verified); empty when
    // there is none.
    std::string path;
    // Bytes on disk so far, or the file's size.
    std::uint64_t bytes = 0;

    friend bool operator==(const OfflineDataPack&, const OfflineDataPack&) = default;
};

// Copied into the service when it is created; later changes to the caller's copy do nothing.
struct OfflineServiceOptions {
    std::string username;
    std::string accessToken;
    // Scheme and host, optionally a path, of the catalogue endpoint. Absent or empty selects
    // defaultCatalogueEndpoint.
    optional<std::string> baseURL;

    friend bool operator==(const OfflineServiceOptions&, const OfflineServiceOptions&) = default;
};

// The pack format this build understands for the domain: 1 for every known domain, 0 otherwise.
TERRANE_EXPORT std::uint32_t expectedFormat(OfflineDataDomain domain);

// "maps" or "navigation", the form used in paths and messages. Any other value is a programming
// error and aborts the process.
TERRANE_EXPORT std::string toString(OfflineDataDomain domain);

// The inverse of toString(OfflineDataDomain); exact and case-sensitive.
TERRANE_EXPORT optional<OfflineDataDomain> toDomain(std::string_view text);

// Short text forms for log lines and messages. Out-of-range enumeration values print a marker
// rather than failing, because these end up in diagnostics.
TERRANE_EXPORT std::ostream& operator<<(std::ostream& out, OfflineDataErrorCode code);
TERRANE_EXPORT std::ostream& operator<<(std::ostream& out, const OfflineDataError& error);
TERRANE_EXPORT std::ostream& operator<<(std::ostream& out, OfflineDataDomain domain);
// "<id>/<revision>".
TERRANE_EXPORT std::ostream& operator<<(std::ostream& out, const OfflineDataRegionMetadata& region);
// Only the checksum: it identifies the file content, which is what a message about a pack needs.
TERRANE_EXPORT std::ostream& operator<<(std::ostream& out, const OfflineDataPackMetadata& pack);

}  // namespace terrane::common
