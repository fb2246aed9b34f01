#include "catalogue_publisher.hpp"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <terrane/geojson/geojson.hpp>
#include <terrane/offline/offline_data.hpp>
#include <terrane/util/md5.hpp>
#include <terrane/util/rfc3339.hpp>

#include "json_reading.hpp"
#include "json_writer.hpp"
#include "text_format.hpp"

namespace terrane::tool {

namespace fs = std::filesystem;
using common::OfflineDataDomain;

namespace {

struct PackSource {
    OfflineDataDomain domain = OfflineDataDomain::Maps;
    fs::path file;
    std::string dataVersion;
};

struct RegionSource {
    std::string id;
    std::uint32_t revision = 0;
    std::string name;
    std::string description;
    std::string lastUpdated;
    // Compact GeoJSON geometry, or empty for none.
    std::string geography;
    std::vector<PackSource> packs;
};

ToolError badInput(const std::string& message) {
    return ToolError{BadInput, message};
}

Result<std::string> readGeography(const fs::path& file, const std::string& where) {
    auto text = readWholeFile(file.string());
    if (!text) {
        return common::unexpected(badInput(where + ": " + text.error()));
    }
    auto parsed = geojson::parse(*text);
    if (!parsed) {
        return common::unexpected(
            badInput(where + ": '" + file.string() + "' is not usable GeoJSON: " + parsed.error()));
    }
    if (parsed->is<geometry::geometry>()) {
        return geojson::stringify(parsed->get<geometry::geometry>());
    }
    if (parsed->is<feature::feature>()) {
        return geojson::stringify(parsed->get<feature::feature>().geometry);
    }
    return common::unexpected(badInput(where + ": '" + file.string() +
                                       "' must hold one GeoJSON Feature or Geometry, not a "
                                       "FeatureCollection"));
}

Result<PackSource> readPack(const fs::path& source, const std::string& domainName,
                            const feature::value& entry, const std::string& where) {
    PackSource pack;
    const auto domain = common::toDomain(domainName);
    if (!domain) {
        return common::unexpected(badInput(where + ": unknown pack domain '" + domainName +
                                           "' (use maps or navigation)"));
    }
    pack.domain = *domain;
    std::string file;
    if (entry.is<std::string>()) {
        file = entry.get<std::string>();
    } else if (entry.is<JsonObject>()) {
        const auto& object = entry.get<JsonObject>();
        const std::string* named = stringMember(object, "file");
        if (named == nullptr) {
            return common::unexpected(
                badInput(where + ": the " + domainName + " pack needs a \"file\" string"));
        }
        file = *named;
        if (const feature::value* version = member(object, "data_version")) {
            if (!version->is<std::string>()) {
                return common::unexpected(badInput(where + ": the " + domainName +
                                                   " pack's \"data_version\" must be a string"));
            }
            pack.dataVersion = version->get<std::string>();
        }
    } else {
        return common::unexpected(badInput(where + ": the " + domainName +
                                           " pack must be a file name or an object with \"file\""));
    }
    pack.file = fs::path(file).is_absolute() ? fs::path(file) : source / file;
    std::error_code error;
    if (!fs::is_regular_file(pack.file, error)) {
        return common::unexpected(badInput(where + ": pack file '" + pack.file.string() +
                                           "' does not exist or is not a regular file"));
    }
    return pack;
}

Result<RegionSource> readRegion(const fs::path& source, const std::string& id,
                                const feature::value& entry) {
    const std::string where = std::string(kRegionsDescription) + ", region '" + id + "'";
    if (!isSafeName(id)) {
        return common::unexpected(
            badInput(where + ": region ids may use letters, digits, '.', '_' and '-' only"));
    }
    if (!entry.is<JsonObject>()) {
        return common::unexpected(badInput(where + ": must be an object"));
    }
    const auto& object = entry.get<JsonObject>();
    RegionSource region;
    region.id = id;
    const auto revision = unsignedMember(object, "revision");
    if (!revision || *revision == 0 || *revision > 0xffffffffULL) {
        return common::unexpected(
            badInput(where + ": \"revision\" must be a whole number from 1 to 4294967295"));
    }
    region.revision = static_cast<std::uint32_t>(*revision);
    const std::string* name = stringMember(object, "name");
    region.name = name != nullptr ? *name : id;
    if (const std::string* description = stringMember(object, "description")) {
        region.description = *description;
    }
    if (const feature::value* updated = member(object, "last_updated")) {
        if (!updated->is<std::string>() ||
            !common::util::parseRFC3339(updated->get<std::string>().c_str())) {
            return common::unexpected(badInput(
                where +
                ": \"last_updated\" must be an RFC 3339 time such as 2024-05-01T12:00:00Z"));
        }
        region.lastUpdated = updated->get<std::string>();
    } else {
        region.lastUpdated =
            formatTimestamp(std::chrono::time_point_cast<std::chrono::milliseconds>(
                std::chrono::system_clock::now()));
    }
    if (const feature::value* geography = member(object, "geography")) {
        if (!geography->is<std::string>()) {
            return common::unexpected(badInput(where + ": \"geography\" must name a GeoJSON file"));
        }
        const fs::path file = source / geography->get<std::string>();
        auto geometry = readGeography(file, where);
        if (!geometry) {
            return common::unexpected(geometry.error());
        }
        region.geography = *geometry;
    }
    if (const feature::value* packs = member(object, "packs")) {
        if (!packs->is<JsonObject>()) {
            return common::unexpected(
                badInput(where + ": \"packs\" must be an object such as {\"maps\": \"file\"}"));
        }
        const auto& byDomain = packs->get<JsonObject>();
        for (const char* domainName : {"maps", "navigation"}) {
            if (const feature::value* pack = member(byDomain, domainName)) {
                auto read = readPack(source, domainName, *pack, where);
                if (!read) {
                    return common::unexpected(read.error());
                }
                region.packs.push_back(*read);
            }
        }
        for (const auto& [domainName, pack] : byDomain) {
            if (!common::toDomain(domainName)) {
                return common::unexpected(badInput(where + ": unknown pack domain '" + domainName +
                                                   "' (use maps or navigation)"));
            }
        }
    }
    return region;
}

Result<std::vector<RegionSource>> readDescription(const fs::path& source) {
    const fs::path file = source / kRegionsDescription;
    auto document = readJsonFile(file.string());
    if (!document) {
        return common::unexpected(badInput(document.error()));
    }
    const JsonObject* regions =
        document->is<JsonObject>() ? objectMember(document->get<JsonObject>(), "regions") : nullptr;
    if (regions == nullptr) {
        return common::unexpected(
            badInput("'" + file.string() + "' must be an object with a \"regions\" object inside"));
    }
    // Sorted, so that the catalogue comes out the same on every run.
    const std::map<std::string, feature::value> sorted(regions->begin(), regions->end());
    std::vector<RegionSource> result;
    for (const auto& [id, entry] : sorted) {
        auto region = readRegion(source, id, entry);
        if (!region) {
            return common::unexpected(region.error());
        }
        result.push_back(std::move(*region));
    }
    return result;
}

Result<void> writeFileAtomically(const fs::path& path, const std::string& contents) {
    const fs::path temporary = path.string() + ".tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << contents;
        out.flush();
        if (!out) {
            return fail(BadInput, "cannot write '" + temporary.string() + "'");
        }
    }
    std::error_code error;
    fs::rename(temporary, path, error);
    if (error) {
        return fail(BadInput, "cannot write '" + path.string() + "': " + error.message());
    }
    return {};
}

}  // namespace

bool isSafeName(const std::string& name) {
    if (name.empty() || name.front() == '.') {
        return false;
    }
    for (const char c : name) {
        const bool safe = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                          (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!safe) {
            return false;
        }
    }
    return true;
}

Result<PublishedCatalogue> publishCatalogue(const std::string& source, const std::string& out,
                                            const std::string& user) {
    if (!isSafeName(user)) {
        return fail(Usage, "--user must be a name of letters, digits, '.', '_' and '-'");
    }
    auto regions = readDescription(source);
    if (!regions) {
        return common::unexpected(regions.error());
    }
    const fs::path userDirectory = fs::path(out) / "offline-data" / "v1" / user;
    PublishedCatalogue published;
    published.cataloguePath = (userDirectory / "regions").string();

    JsonWriter json;
    json.beginObject();
    for (const RegionSource& region : *regions) {
        PublishedRegion summary{region.id, region.revision, region.name, {}};
        const std::string revision = std::to_string(region.revision);
        const fs::path packDirectory = userDirectory / "packs" / region.id / revision;
        std::error_code error;
        fs::create_directories(packDirectory, error);
        if (error) {
            return fail(BadInput,
                        "cannot create '" + packDirectory.string() + "': " + error.message());
        }
        json.key(region.id)
            .beginObject()
            .key("name")
            .value(region.name)
            .key("description")
            .value(region.description)
            .key("revision")
            .value(region.revision)
            .key("last_updated")
            .value(region.lastUpdated)
            .key("configuration")
            .beginObject()
            .key("geography");
        if (region.geography.empty()) {
            json.null();
        } else {
            json.raw(region.geography);
        }
        json.endObject().key("packs").beginArray();
        for (const PackSource& pack : region.packs) {
            const std::string domain = common::toString(pack.domain);
            const std::string fileName = domain + ".pack";
            const fs::path destination = packDirectory / fileName;
            fs::copy_file(pack.file, destination, fs::copy_options::overwrite_existing, error);
            if (error) {
                return fail(BadInput, "cannot copy '" + pack.file.string() + "' to '" +
                                          destination.string() + "': " + error.message());
            }
            const std::uint64_t bytes = fs::file_size(destination, error);
            const auto md5 = common::util::md5File(destination.string());
            if (error || !md5) {
                return fail(BadInput, "cannot read back '" + destination.string() + "'");
            }
            json.beginObject()
                .key("domain")
                .value(domain)
                .key("format")
                .value(common::expectedFormat(pack.domain))
                .key("url")
                .value("terrane://offline-data/" + user + "/packs/" + region.id + "/" + revision +
                       "/" + fileName)
                .key("md5_checksum")
                .value(*md5)
                .key("size")
                .value(bytes)
                .key("data_version")
                .value(pack.dataVersion)
                .endObject();
            summary.packs.push_back(PublishedPack{domain, bytes, *md5});
        }
        json.endArray().endObject();
        published.regions.push_back(std::move(summary));
    }
    json.endObject();

    std::error_code error;
    fs::create_directories(userDirectory, error);
    if (error) {
        return fail(BadInput, "cannot create '" + userDirectory.string() + "': " + error.message());
    }
    if (auto written = writeFileAtomically(published.cataloguePath, json.text()); !written) {
        return common::unexpected(written.error());
    }
    return published;
}

}  // namespace terrane::tool
