#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "offline/offline_data_pack_headers.hpp"
#include "terrane/expected.hpp"
#include "terrane/offline/offline_data.hpp"

// Where the offline service keeps its files, and the JSON records in them.
//
// The tree under the service path:
//   <service path>/<account>/                      the storage root of one endpoint and user
//   <root>/configuration.json                      marks an initialised tree; never read back
//   <root>/<region id>/<revision>/metadata.json    the region revision as the catalogue gave it
//   <revision dir>/<domain>/<format>               the verified pack file
//   <revision dir>/<domain>/<format>.tmp           the pack file while it is being downloaded
//   <revision dir>/<domain>/<format>.json          the pack's header record
//
// Every function here is pure (no file system access, no shared state): any thread may call
// them, and every result belongs to the caller. The readers never throw for bad input; they
// return an OfflineDataError with code InvalidResponse and a message meant for a log line.

namespace terrane::common {

inline constexpr std::string_view configurationFileName = "configuration.json";
inline constexpr std::string_view metadataFileName = "metadata.json";
// Appended to the pack file's name while the download is in progress.
inline constexpr std::string_view downloadFileSuffix = ".tmp";

// ---- Paths ----------------------------------------------------------------------------------

// Lower-case hexadecimal MD5 of baseURL + "/" + username: each endpoint and user gets a tree of
// its own, while the access token, which changes, plays no part. baseURL is the effective one,
// after the default endpoint has been applied.
std::string accountDirectoryName(std::string_view baseURL, std::string_view username);

// servicePath / accountDirectoryName(baseURL, username).
std::filesystem::path storageRoot(const std::filesystem::path& servicePath,
                                  std::string_view baseURL, std::string_view username);

// root / "configuration.json".
std::filesystem::path configurationFilePath(const std::filesystem::path& root);

// root / regionId. The id becomes a directory name as it is, so callers must have checked it
// with isValidRegionId(): an id such as ".." would lead out of the root.
std::filesystem::path regionDirectoryPath(const std::filesystem::path& root,
                                          std::string_view regionId);

// root / regionId / the revision in decimal. The same precondition on regionId.
std::filesystem::path revisionDirectoryPath(const std::filesystem::path& root,
                                            std::string_view regionId, std::uint32_t revision);

// revisionDirectory / "metadata.json".
std::filesystem::path metadataFilePath(const std::filesystem::path& revisionDirectory);

// revisionDirectory / "maps" or "navigation". Aborts for a domain outside the enumeration.
std::filesystem::path domainDirectoryPath(const std::filesystem::path& revisionDirectory,
                                          OfflineDataDomain domain);

// revisionDirectory / domain / the format in decimal, without extension (".../maps/1").
std::filesystem::path packFilePath(const std::filesystem::path& revisionDirectory,
                                   OfflineDataDomain domain, std::uint32_t format);

// The pack file's path with ".tmp" appended (".../maps/1.tmp").
std::filesystem::path downloadFilePath(const std::filesystem::path& packFile);

// The path with its extension replaced by "json": the header record belongs to both the pack
// file and its download file, so either may be given (".../maps/1" and ".../maps/1.tmp" both
// give ".../maps/1.json").
std::filesystem::path headerFilePath(const std::filesystem::path& packOrDownloadFile);

// True when the id can be used as one directory name below the storage root: not empty, not
// "." or "..", and free of "/" and of control characters (NUL included). Region ids come from
// the remote catalogue, and a hostile one must not make the service write or delete outside its
// tree, nor reach a terminal as escape codes.
bool isValidRegionId(std::string_view id);

// ---- Writers --------------------------------------------------------------------------------
// Pretty-printed JSON, members in a fixed order. They cannot fail short of memory exhaustion.
// A geography with non-finite coordinates is written, but the result is then not valid JSON.

// "configuration.json": {"base_url", "username"}.
std::string serializeConfiguration(std::string_view baseURL, std::string_view username);

// "metadata.json": name, description, last_updated (RFC 3339), revision, configuration
// (geography as GeoJSON or null, and "maps"/"navigation" markers: {} or false), packs (maps
// first, then navigation). The region id is not written: it is the name of the directory.
std::string serializeMetadata(const OfflineDataRegionMetadata& region);

// A pack header record: expires (milliseconds since the epoch; omitted when there is none),
// max_age (omitted when negative), etag (omitted when empty), then bytes, complete and verified,
// which are always written. An expiry before the epoch is written as 0.
std::string serializePackHeaders(const OfflineDataPackHeaders& headers);

// ---- Readers --------------------------------------------------------------------------------

// Reads a pack header record. Empty when the text is not JSON (nesting beyond the JSON reader's
// bound included) or its root is not an object. Members that are missing or of another type
// keep their defaults; "complete" and "verified" count only as the literal true. An expiry or
// max-age too large for the record is clamped to the largest value it holds.
optional<OfflineDataPackHeaders> parsePackHeaders(const std::string& text);

// Reads one pack entry of a region revision (from "metadata.json" or from the catalogue). The
// caller has already matched the entry's format, so the result's format is always 1.
expected<OfflineDataPackMetadata, OfflineDataError> parsePackMetadata(const rapidjson::Value& json);

// Reads one region revision. `id` is the region id as a JSON value (from the catalogue, or the
// directory name), `revision` the revision's object. Checks run in a fixed order and the first
// failure is returned. Pack entries of unknown domains or of formats this build does not
// understand are skipped without error; a later entry of a domain replaces an earlier one.
// Parse the text with json::parseDocument, whose nesting bound keeps hostile documents from
// exhausting the stack.
expected<OfflineDataRegionMetadata, OfflineDataError> parseRegionMetadata(
    const rapidjson::Value& id, const rapidjson::Value& revision);

}  // namespace terrane::common
