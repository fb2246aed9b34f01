#include "offline/offline_storage.hpp"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include "geojson/geojson.hpp"
#include "terrane/util/md5.hpp"
#include "terrane/util/rfc3339.hpp"
#include "value/json_reader.hpp"

namespace terrane::common {

namespace {

using Writer = rapidjson::PrettyWriter<rapidjson::StringBuffer>;

// The GeoJSON reader's message for a geometry that is not an object. A region whose geography
// fails only this way is kept, without geography: catalogues have shipped Features with a null
// geometry, and refusing the whole region for a missing outline helps nobody.
constexpr std::string_view toleratedGeographyFailure = "Geometry must be an object";

OfflineDataError invalidResponse(std::string message) {
    return {OfflineDataErrorCode::InvalidResponse, std::move(message)};
}

unexpected<OfflineDataError> invalid(std::string message) {
    return unexpected(invalidResponse(std::move(message)));
}

std::string_view stringOf(const rapidjson::Value& json) {
    return {json.GetString(), json.GetStringLength()};
}

// The member's value, or nullptr when absent; with a repeated name the first one counts.
const rapidjson::Value* member(const rapidjson::Value& object, const char* name) {
    const auto found = object.FindMember(name);
    return found == object.MemberEnd() ? nullptr : &found->value;
}

void writeString(Writer& writer, std::string_view text) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void writeKey(Writer& writer, std::string_view key) {
    writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

void writePack(Writer& writer, OfflineDataDomain domain, const OfflineDataPackMetadata& pack) {
    writer.StartObject();
    writeKey(writer, "domain");
    writeString(writer, toString(domain));
    writeKey(writer, "format");
    writer.Uint(pack.format);
    writeKey(writer, "url");
    writeString(writer, pack.url);
    writeKey(writer, "md5_checksum");
    writeString(writer, pack.md5_checksum);
    writeKey(writer, "size");
    writer.Uint64(pack.bytes);
    writeKey(writer, "data_version");
    writeString(writer, pack.data_version);
    writer.EndObject();
}

// Reads a region's geography into `geography`: a geometry as it is, the geometry of a Feature,
// nothing for a collection of features (an outline must be one shape). Returns the failure, if
// any, leaving `geography` empty.
optional<OfflineDataError> readGeography(const rapidjson::Value& json,
                                         geometry::geometry& geography) {
    geojson::geojson document;
    try {
        document = geojson::convert(json);
    } catch (const std::runtime_error& error) {
        if (error.what() == toleratedGeographyFailure) {
            return nullopt;
        }
        return invalidResponse(std::string("Region geography must be a GeoJSON feature: ") +
                               error.what());
    }
    if (auto* shape = document.get_if<geometry::geometry>()) {
        geography = std::move(*shape);
        return nullopt;
    }
    if (auto* feature = document.get_if<feature::feature>()) {
        geography = std::move(feature->geometry);
        return nullopt;
    }
    return invalidResponse("Region geography must be a GeoJSON Feature or Geometry");
}

}  // namespace

std::string accountDirectoryName(std::string_view baseURL, std::string_view username) {
    std::string account;
    account.reserve(baseURL.size() + 1 + username.size());
    account.append(baseURL).append("/").append(username);
    return util::md5String(account);
}

std::filesystem::path storageRoot(const std::filesystem::path& servicePath,
                                  std::string_view baseURL, std::string_view username) {
    return servicePath / accountDirectoryName(baseURL, username);
}

std::filesystem::path configurationFilePath(const std::filesystem::path& root) {
    return root / configurationFileName;
}

std::filesystem::path regionDirectoryPath(const std::filesystem::path& root,
                                          std::string_view regionId) {
    return root / regionId;
}

std::filesystem::path revisionDirectoryPath(const std::filesystem::path& root,
                                            std::string_view regionId, std::uint32_t revision) {
    return regionDirectoryPath(root, regionId) / std::to_string(revision);
}

std::filesystem::path metadataFilePath(const std::filesystem::path& revisionDirectory) {
    return revisionDirectory / metadataFileName;
}

std::filesystem::path domainDirectoryPath(const std::filesystem::path& revisionDirectory,
                                          OfflineDataDomain domain) {
    return revisionDirectory / toString(domain);
}

std::filesystem::path packFilePath(const std::filesystem::path& revisionDirectory,
                                   OfflineDataDomain domain, std::uint32_t format) {
    return domainDirectoryPath(revisionDirectory, domain) / std::to_string(format);
}

std::filesystem::path downloadFilePath(const std::filesystem::path& packFile) {
    std::filesystem::path download = packFile;
    download += downloadFileSuffix;
    return download;
}

std::filesystem::path headerFilePath(const std::filesystem::path& packOrDownloadFile) {
    std::filesystem::path header = packOrDownloadFile;
    header.replace_extension("json");
    return header;
}

bool isValidRegionId(std::string_view id) {
    const auto isControl = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    };
    return !id.empty() && id != "." && id != ".." && id.find('/') == std::string_view::npos &&
           std::none_of(id.begin(), id.end(), isControl);
}

std::string serializeConfiguration(std::string_view baseURL, std::string_view username) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    writer.StartObject();
    writeKey(writer, "base_url");
    writeString(writer, baseURL);
    writeKey(writer, "username");
    writeString(writer, username);
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

std::string serializeMetadata(const OfflineDataRegionMetadata& region) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    writer.StartObject();
    writeKey(writer, "name");
    writeString(writer, region.name);
    writeKey(writer, "description");
    writeString(writer, region.description);
    writeKey(writer, "last_updated");
    writeString(writer, util::formatRFC3339(region.last_updated));
    writeKey(writer, "revision");
    writer.Uint(region.revision);

    writeKey(writer, "configuration");
    writer.StartObject();
    writeKey(writer, "geography");
    if (region.geography.is<geometry::empty>()) {
        writer.Null();
    } else {
        rapidjson::Document scratch;
        geojson::convert(region.geography, scratch.GetAllocator()).Accept(writer);
    }
    // Markers for other readers of the tree; parseRegionMetadata goes by "packs" alone.
    for (const auto& [key, pack] :
         {std::pair{"maps", &region.mapPack}, std::pair{"navigation", &region.navigationPack}}) {
        writeKey(writer, key);
        if (pack->has_value()) {
            writer.StartObject();
            writer.EndObject();
        } else {
            writer.Bool(false);
        }
    }
    writer.EndObject();

    writeKey(writer, "packs");
    writer.StartArray();
    if (region.mapPack) {
        writePack(writer, OfflineDataDomain::Maps, *region.mapPack);
    }
    if (region.navigationPack) {
        writePack(writer, OfflineDataDomain::Navigation, *region.navigationPack);
    }
    writer.EndArray();
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

std::string serializePackHeaders(const OfflineDataPackHeaders& headers) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    writer.StartObject();
    if (headers.expires != util::TimePoint::max()) {
        const auto milliseconds = headers.expires.time_since_epoch().count();
        writeKey(writer, "expires");
        writer.Uint64(milliseconds < 0 ? 0 : static_cast<std::uint64_t>(milliseconds));
    }
    if (headers.max_age >= 0) {
        writeKey(writer, "max_age");
        writer.Uint64(static_cast<std::uint64_t>(headers.max_age));
    }
    if (!headers.etag.empty()) {
        writeKey(writer, "etag");
        writeString(writer, headers.etag);
    }
    writeKey(writer, "bytes");
    writer.Uint64(headers.bytes);
    writeKey(writer, "complete");
    writer.Bool(headers.complete);
    writeKey(writer, "verified");
    writer.Bool(headers.verified);
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

optional<OfflineDataPackHeaders> parsePackHeaders(const std::string& text) {
    rapidjson::Document document;
    if (!json::parseDocument(text, document) || !document.IsObject()) {
        return nullopt;
    }

    constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    OfflineDataPackHeaders headers;
    if (const auto* expires = member(document, "expires"); expires && expires->IsUint64()) {
        const std::uint64_t milliseconds = expires->GetUint64();
        headers.expires = milliseconds > largest ? util::TimePoint::max()
                                                 : util::TimePoint(std::chrono::milliseconds(
                                                       static_cast<std::int64_t>(milliseconds)));
    }
    if (const auto* maxAge = member(document, "max_age"); maxAge && maxAge->IsUint64()) {
        headers.max_age = static_cast<std::int64_t>(std::min(maxAge->GetUint64(), largest));
    }
    if (const auto* etag = member(document, "etag"); etag && etag->IsString()) {
        headers.etag = stringOf(*etag);
    }
    if (const auto* bytes = member(document, "bytes"); bytes && bytes->IsUint64()) {
        headers.bytes = bytes->GetUint64();
    }
    if (const auto* complete = member(document, "complete"); complete && complete->IsTrue()) {
        headers.complete = true;
    }
    if (const auto* verified = member(document, "verified"); verified && verified->IsTrue()) {
        headers.verified = true;
    }
    return headers;
}

expected<OfflineDataPackMetadata, OfflineDataError> parsePackMetadata(
    const rapidjson::Value& json) {
    if (!json.IsObject()) {
        return invalid("Region pack must be an object");
    }
    const auto* url = member(json, "url");
    if (url == nullptr || !url->IsString()) {
        return invalid("Region pack's url must be a string");
    }
    const auto* checksum = member(json, "md5_checksum");
    if (checksum == nullptr || !checksum->IsString()) {
        return invalid("Region pack's md5_checksum must be a string");
    }
    const auto* size = member(json, "size");
    if (size == nullptr || !size->IsUint64()) {
        return invalid("Region pack's size must be a positive integer");
    }
    const auto* dataVersion = member(json, "data_version");
    if (dataVersion != nullptr && !dataVersion->IsString()) {
        return invalid("Region pack's data_version must be a string if present");
    }

    OfflineDataPackMetadata pack;
    pack.url = stringOf(*url);
    pack.md5_checksum = stringOf(*checksum);
    pack.bytes = size->GetUint64();
    pack.format = 1;
    if (dataVersion != nullptr) {
        pack.data_version = stringOf(*dataVersion);
    }
    return pack;
}

expected<OfflineDataRegionMetadata, OfflineDataError> parseRegionMetadata(
    const rapidjson::Value& id, const rapidjson::Value& revision) {
    if (!id.IsString()) {
        return invalid("Region ID must be a string");
    }
    if (!isValidRegionId(stringOf(id))) {
        return invalid("Region ID must be a valid directory name");
    }
    if (!revision.IsObject()) {
        return invalid("Region must be an object");
    }

    OfflineDataRegionMetadata region;
    region.id = stringOf(id);

    if (const auto* name = member(revision, "name")) {
        if (!name->IsString()) {
            return invalid("Region name must be a string");
        }
        region.name = stringOf(*name);
    }
    if (const auto* description = member(revision, "description")) {
        if (!description->IsString()) {
            return invalid("Region description must be a string");
        }
        region.description = stringOf(*description);
    }
    const auto* number = member(revision, "revision");
    if (number == nullptr || !number->IsUint()) {
        return invalid("Region must have a revision number");
    }
    region.revision = number->GetUint();
    if (const auto* lastUpdated = member(revision, "last_updated")) {
        if (!lastUpdated->IsString()) {
            return invalid("Region update time must be a string");
        }
        const auto time = util::parseRFC3339(lastUpdated->GetString());
        if (!time) {
            return invalid("Region update time must be an RFC3339-formatted timestamp");
        }
        region.last_updated = *time;
    }

    const auto* configuration = member(revision, "configuration");
    if (configuration == nullptr || !configuration->IsObject()) {
        return invalid("Region revision must have a configuration object");
    }
    if (const auto* geography = member(*configuration, "geography");
        geography != nullptr && !geography->IsNull()) {
        if (!geography->IsObject()) {
            return invalid("Region revision must have a geography object");
        }
        if (auto failure = readGeography(*geography, region.geography)) {
            return unexpected(std::move(*failure));
        }
    }

    const auto* packs = member(revision, "packs");
    if (packs == nullptr) {
        return region;
    }
    if (!packs->IsArray()) {
        return invalid("Region revision must have a packs array");
    }
    for (const auto& entry : packs->GetArray()) {
        if (!entry.IsObject()) {
            return invalid("Region pack must be an object");
        }
        const auto* format = member(entry, "format");
        if (format == nullptr || !format->IsUint64()) {
            return invalid("Region pack specify a format number");
        }
        const auto* domainName = member(entry, "domain");
        if (domainName == nullptr || !domainName->IsString()) {
            return invalid("Region pack specify a domain");
        }
        // Newer formats and domains are meant for newer builds, which share the catalogue.
        const auto domain = toDomain(stringOf(*domainName));
        if (!domain || format->GetUint64() != expectedFormat(*domain)) {
            continue;
        }
        auto pack = parsePackMetadata(entry);
        if (!pack) {
            return unexpected(std::move(pack.error()));
        }
        (*domain == OfflineDataDomain::Maps ? region.mapPack : region.navigationPack) =
            std::move(*pack);
    }
    return region;
}

}  // namespace terrane::common
