#include "offline/offline_storage.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "value/json_reader.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
namespace fs = std::filesystem;

rapidjson::Document parse(const std::string& text) {
    rapidjson::Document document;
    const auto parsed = json::parseDocument(text, document);
    EXPECT_TRUE(parsed.has_value()) << parsed.error() << " in " << text;
    return document;
}

expected<OfflineDataRegionMetadata, OfflineDataError> readRegion(const std::string& id,
                                                                 const std::string& text) {
    const rapidjson::Value idValue(id.data(), static_cast<rapidjson::SizeType>(id.size()));
    return parseRegionMetadata(idValue, parse(text));
}

// The message of a failed read, or "ok".
std::string outcome(const expected<OfflineDataRegionMetadata, OfflineDataError>& result) {
    if (result) {
        return "ok";
    }
    EXPECT_EQ(result.error().code, OfflineDataErrorCode::InvalidResponse);
    return result.error().message;
}

std::string regionWithPacks(const std::string& packs) {
    return R"({"revision": 3, "configuration": {}, "packs": )" + packs + "}";
}

const std::string mapsEntry =
    R"({"domain": "maps", "format": 1, "url": "u", "md5_checksum": "c", "size": 1})";

util::TimePoint march4th2021() {
    return util::TimePoint(std::chrono::sys_days{std::chrono::year{2021} / 3 / 4}) + 5h + 6min +
           7s + 250ms;
}

OfflineDataPackMetadata packOf(std::string url, std::uint64_t bytes, std::string dataVersion) {
    OfflineDataPackMetadata pack;
    pack.url = std::move(url);
    pack.md5_checksum = "0123456789abcdef0123456789abcdef";
    pack.bytes = bytes;
    pack.format = 1;
    pack.data_version = std::move(dataVersion);
    return pack;
}

// ---- Paths ----------------------------------------------------------------------------------

TEST(OfflineStoragePaths, AccountDirectoryIsTheMd5OfBaseUrlSlashUsername) {
    // printf 'https://api.example.com/alice' | md5sum
    EXPECT_EQ(accountDirectoryName("https://api.example.com", "alice"),
              "a08e9eaa363db244ec1a6010a2f195d6");
    // An empty username still contributes its separator.
    EXPECT_EQ(accountDirectoryName("https://api.example.com", ""),
              "d4ad06b5c27df5f06bef8ae48d451d72");
    EXPECT_EQ(storageRoot("/data/offline", "https://api.example.com", "alice"),
              fs::path("/data/offline/a08e9eaa363db244ec1a6010a2f195d6"));
}

TEST(OfflineStoragePaths, TreeBelowTheRoot) {
    const fs::path root = "/root";
    EXPECT_EQ(configurationFilePath(root), fs::path("/root/configuration.json"));
    EXPECT_EQ(regionDirectoryPath(root, "berlin"), fs::path("/root/berlin"));
    const fs::path revision = revisionDirectoryPath(root, "berlin", 4294967295u);
    EXPECT_EQ(revision, fs::path("/root/berlin/4294967295"));
    EXPECT_EQ(metadataFilePath(revision), revision / "metadata.json");
    EXPECT_EQ(domainDirectoryPath(revision, OfflineDataDomain::Navigation),
              revision / "navigation");

    const fs::path pack = packFilePath(revision, OfflineDataDomain::Maps, 1);
    EXPECT_EQ(pack, revision / "maps" / "1");
    EXPECT_EQ(downloadFilePath(pack), revision / "maps" / "1.tmp");
    EXPECT_EQ(headerFilePath(pack), revision / "maps" / "1.json");
    EXPECT_EQ(headerFilePath(downloadFilePath(pack)), revision / "maps" / "1.json");
}

TEST(OfflineStoragePaths, RegionIdsThatWouldLeaveTheRootOrHoldControlsAreInvalid) {
    for (const std::string& id :
         {""s, "."s, ".."s, "a/b"s, "../x"s, "/"s, "x/"s, "a\0b"s, "a\x1B[2J"s, "a\nb"s, "\x7F"s}) {
        EXPECT_FALSE(isValidRegionId(id)) << id;
    }
    for (const std::string& id : {"berlin"s, "..."s, ".hidden"s, "a..b"s, "a b"s, "a\\b"s}) {
        EXPECT_TRUE(isValidRegionId(id)) << id;
    }
}

// ---- Writers --------------------------------------------------------------------------------

TEST(OfflineStorageWriters, ConfigurationText) {
    EXPECT_EQ(serializeConfiguration("https://api.example.com", "alice"),
              "{\n"
              "    \"base_url\": \"https://api.example.com\",\n"
              "    \"username\": \"alice\"\n"
              "}");
}

TEST(OfflineStorageWriters, PackHeadersWithEveryMember) {
    OfflineDataPackHeaders headers;
    headers.expires = util::TimePoint(1700000000123ms);
    headers.max_age = 3600;
    headers.etag = "\"abc\"";
    headers.bytes = 1234;
    headers.complete = true;
    EXPECT_EQ(serializePackHeaders(headers),
              "{\n"
              "    \"expires\": 1700000000123,\n"
              "    \"max_age\": 3600,\n"
              "    \"etag\": \"\\\"abc\\\"\",\n"
              "    \"bytes\": 1234,\n"
              "    \"complete\": true,\n"
              "    \"verified\": false\n"
              "}");
}

TEST(OfflineStorageWriters, PackHeadersOmitWhatIsUnknown) {
    OfflineDataPackHeaders headers;
    headers.verified = true;
    EXPECT_EQ(serializePackHeaders(headers),
              "{\n"
              "    \"bytes\": 0,\n"
              "    \"complete\": false,\n"
              "    \"verified\": true\n"
              "}");

    headers.expires = util::TimePoint(-5ms);
    headers.max_age = 0;
    EXPECT_EQ(serializePackHeaders(headers),
              "{\n"
              "    \"expires\": 0,\n"
              "    \"max_age\": 0,\n"
              "    \"bytes\": 0,\n"
              "    \"complete\": false,\n"
              "    \"verified\": true\n"
              "}");
}

TEST(OfflineStorageWriters, MetadataText) {
    OfflineDataRegionMetadata region;
    region.id = "berlin";
    region.revision = 3;
    region.name = "Berlin";
    region.description = "Capital";
    region.last_updated = march4th2021();
    region.geography = geometry::point{13.4, 52.5};
    region.mapPack = packOf("terrane://offline-data/berlin/maps", 1234, "");
    EXPECT_EQ(serializeMetadata(region),
              R"({
    "name": "Berlin",
    "description": "Capital",
    "last_updated": "2021-03-04T05:06:7.250Z",
    "revision": 3,
    "configuration": {
        "geography": {
            "type": "Point",
            "coordinates": [
                13.4,
                52.5
            ]
        },
        "maps": {},
        "navigation": false
    },
    "packs": [
        {
            "domain": "maps",
            "format": 1,
            "url": "terrane://offline-data/berlin/maps",
            "md5_checksum": "0123456789abcdef0123456789abcdef",
            "size": 1234,
            "data_version": ""
        }
    ]
})");
}

TEST(OfflineStorageWriters, MetadataWithoutGeographyOrMapsWritesNullAndFalse) {
    OfflineDataRegionMetadata region;
    region.revision = 1;
    region.navigationPack = packOf("n", 5, "2024.1");
    EXPECT_EQ(serializeMetadata(region),
              R"({
    "name": "",
    "description": "",
    "last_updated": "1970-01-01T00:00:0.000Z",
    "revision": 1,
    "configuration": {
        "geography": null,
        "maps": false,
        "navigation": {}
    },
    "packs": [
        {
            "domain": "navigation",
            "format": 1,
            "url": "n",
            "md5_checksum": "0123456789abcdef0123456789abcdef",
            "size": 5,
            "data_version": "2024.1"
        }
    ]
})");
}

// ---- Round trips ----------------------------------------------------------------------------

TEST(OfflineStorageRoundTrip, MetadataReadsBackAsTheSameRegion) {
    using namespace geometry;
    const linear_ring outer{{0, 0}, {10, 0}, {10, 10}, {0, 10}, {0, 0}};
    const linear_ring hole{{2, 2}, {3, 2}, {3, 3}, {2, 2}};
    geometry_collection nested{point{1.5, -2.25}, geometry_collection{line_string{{0, 0}, {1, 1}}}};

    const std::vector<geometry::geometry> geographies = {
        empty{},
        point{13.4, 52.52},
        line_string{{0, 0}, {1.25, -1e-7}},
        polygon{outer, hole},
        multi_point{{1, 2}, {3, 4}},
        multi_line_string{line_string{{0, 0}, {1, 1}}, line_string{{2, 2}, {3, 3}}},
        multi_polygon{polygon{outer}, polygon{outer, hole}},
        nested,
    };
    for (const auto& geography : geographies) {
        OfflineDataRegionMetadata region;
        region.id = "region-a";
        region.revision = 4294967295u;
        region.name = "Name with \"quotes\" and ünïcödé";
        region.description = "Line\nbreak";
        region.last_updated = march4th2021();
        region.geography = geography;
        region.mapPack = packOf("terrane://offline-data/a/maps", 1ull << 40, "v1");
        region.navigationPack = packOf("https://example.com/nav", 0, "");

        const auto read = readRegion("region-a", serializeMetadata(region));
        ASSERT_TRUE(read.has_value()) << read.error().message;
        EXPECT_EQ(*read, region) << "geometry kind " << geography.which();
    }
}

TEST(OfflineStorageRoundTrip, RegionWithoutPacks) {
    OfflineDataRegionMetadata region;
    region.id = "r";
    region.revision = 2;
    const auto read = readRegion("r", serializeMetadata(region));
    ASSERT_TRUE(read.has_value()) << read.error().message;
    EXPECT_EQ(*read, region);
}

TEST(OfflineStorageRoundTrip, PackHeaders) {
    OfflineDataPackHeaders headers;
    headers.expires = util::TimePoint(1700000000123ms);
    headers.max_age = 86400;
    headers.etag = "W/\"x\"";
    headers.bytes = 1ull << 40;
    headers.complete = true;
    headers.verified = true;
    EXPECT_EQ(parsePackHeaders(serializePackHeaders(headers)), headers);
    EXPECT_EQ(parsePackHeaders(serializePackHeaders(OfflineDataPackHeaders{})),
              OfflineDataPackHeaders{});
}

// ---- Pack header reader ---------------------------------------------------------------------

TEST(OfflinePackHeadersReader, EmptyObjectGivesDefaults) {
    const auto headers = parsePackHeaders("{}");
    ASSERT_TRUE(headers.has_value());
    EXPECT_EQ(headers->expires, util::TimePoint::max());
    EXPECT_EQ(headers->max_age, -1);
    EXPECT_EQ(headers->etag, "");
    EXPECT_EQ(headers->bytes, 0u);
    EXPECT_FALSE(headers->complete);
    EXPECT_FALSE(headers->verified);
}

TEST(OfflinePackHeadersReader, WronglyTypedMembersKeepTheirDefaults) {
    const auto headers = parsePackHeaders(
        R"({"expires": -1, "max_age": 1.5, "etag": 7, "bytes": -3,
            "complete": "true", "verified": 1})");
    ASSERT_TRUE(headers.has_value());
    EXPECT_EQ(*headers, OfflineDataPackHeaders{});
}

TEST(OfflinePackHeadersReader, AcceptsAnyFormatting) {
    const auto headers =
        parsePackHeaders(R"({"verified":true,"bytes":10,"expires":5000,"complete":true})");
    ASSERT_TRUE(headers.has_value());
    EXPECT_EQ(headers->expires, util::TimePoint(5s));
    EXPECT_EQ(headers->bytes, 10u);
    EXPECT_TRUE(headers->complete);
    EXPECT_TRUE(headers->verified);
}

TEST(OfflinePackHeadersReader, ValuesBeyondTheRecordAreClamped) {
    const auto headers =
        parsePackHeaders(R"({"expires": 18446744073709551615, "max_age": 18446744073709551615})");
    ASSERT_TRUE(headers.has_value());
    EXPECT_EQ(headers->expires, util::TimePoint::max());
    EXPECT_EQ(headers->max_age, std::numeric_limits<std::int64_t>::max());
}

TEST(OfflinePackHeadersReader, RefusesWhatIsNotAJsonObject) {
    EXPECT_FALSE(parsePackHeaders(""));
    EXPECT_FALSE(parsePackHeaders("{"));
    EXPECT_FALSE(parsePackHeaders("[]"));
    EXPECT_FALSE(parsePackHeaders("null"));
    EXPECT_FALSE(parsePackHeaders(R"({"bytes": 1} {})"));
}

TEST(OfflinePackHeadersReader, SurvivesHostileNesting) {
    const std::size_t depth = 100000;
    EXPECT_FALSE(parsePackHeaders(std::string(depth, '[') + std::string(depth, ']')));
    EXPECT_FALSE(
        parsePackHeaders(R"({"etag": )" + std::string(depth, '[') + std::string(depth, ']') + "}"));
}

// ---- Region reader --------------------------------------------------------------------------

// Starts from a document that breaks every check and repairs one thing at a time, so each
// message is shown to come before all that follow it.
TEST(OfflineRegionReader, ChecksRunInOrderAndTheFirstFailureWins) {
    rapidjson::Document id;
    id.SetInt(7);
    rapidjson::Document region;
    region.SetArray();
    auto set = [&](const char* name, const std::string& json) {
        rapidjson::Document value = parse(json);
        rapidjson::Value copy(value, region.GetAllocator());
        if (auto found = region.FindMember(name); found != region.MemberEnd()) {
            found->value = copy;
        } else {
            region.AddMember(rapidjson::Value(name, region.GetAllocator()), copy,
                             region.GetAllocator());
        }
    };
    auto read = [&] { return outcome(parseRegionMetadata(id, region)); };

    EXPECT_EQ(read(), "Region ID must be a string");
    id.SetString("a/b");
    EXPECT_EQ(read(), "Region ID must be a valid directory name");
    id.SetString("berlin");
    EXPECT_EQ(read(), "Region must be an object");

    region.SetObject();
    set("name", "1");
    set("description", "[]");
    set("revision", "-1");
    set("last_updated", "5");
    set("configuration", "[]");
    set("packs", "{}");
    EXPECT_EQ(read(), "Region name must be a string");
    set("name", R"("Berlin")");
    EXPECT_EQ(read(), "Region description must be a string");
    set("description", R"("")");
    EXPECT_EQ(read(), "Region must have a revision number");
    set("revision", "3");
    EXPECT_EQ(read(), "Region update time must be a string");
    set("last_updated", R"("yesterday")");
    EXPECT_EQ(read(), "Region update time must be an RFC3339-formatted timestamp");
    set("last_updated", R"("2021-03-04T05:06:07Z")");
    EXPECT_EQ(read(), "Region revision must have a configuration object");
    set("configuration", R"({"geography": 7})");
    EXPECT_EQ(read(), "Region revision must have a geography object");
    set("configuration", R"({"geography": {"type": "FeatureCollection", "features": []}})");
    EXPECT_EQ(read(), "Region geography must be a GeoJSON Feature or Geometry");
    set("configuration", R"({"geography": {"type": "LineString", "coordinates": [[1, 2]]}})");
    EXPECT_EQ(read(),
              "Region geography must be a GeoJSON feature: A line string must have two or more "
              "coordinate points.");
    set("configuration", R"({"geography": null})");
    EXPECT_EQ(read(), "Region revision must have a packs array");
    set("packs", R"([5, {"format": "x"}])");
    EXPECT_EQ(read(), "Region pack must be an object");
    set("packs", R"([{"format": "1", "domain": 1}])");
    EXPECT_EQ(read(), "Region pack specify a format number");
    set("packs", R"([{"format": 1, "domain": 1}])");
    EXPECT_EQ(read(), "Region pack specify a domain");
    set("packs", R"([{"format": 1, "domain": "maps", "md5_checksum": 1, "size": -1}])");
    EXPECT_EQ(read(), "Region pack's url must be a string");
    set("packs", R"([{"format": 1, "domain": "maps", "url": "u", "md5_checksum": 1, "size": -1}])");
    EXPECT_EQ(read(), "Region pack's md5_checksum must be a string");
    set("packs",
        R"([{"format": 1, "domain": "maps", "url": "u", "md5_checksum": "c", "size": -1,
             "data_version": 2}])");
    EXPECT_EQ(read(), "Region pack's size must be a positive integer");
    set("packs", R"([{"format": 1, "domain": "maps", "url": "u", "md5_checksum": "c", "size": 1,
                      "data_version": 2}])");
    EXPECT_EQ(read(), "Region pack's data_version must be a string if present");
    set("packs", R"([{"format": 1, "domain": "maps", "url": "u", "md5_checksum": "c", "size": 1,
                      "data_version": "v"}])");
    EXPECT_EQ(read(), "ok");
}

TEST(OfflineRegionReader, HostileIdsAreRefused) {
    const std::string body = regionWithPacks("[]");
    for (const std::string& id : {""s, "."s, ".."s, "a/b"s, "../x"s, "x\0y"s}) {
        EXPECT_EQ(outcome(readRegion(id, body)), "Region ID must be a valid directory name")
            << "id of length " << id.size();
    }
    // The id is checked before anything else in the revision.
    EXPECT_EQ(outcome(readRegion("..", "[]")), "Region ID must be a valid directory name");
    EXPECT_EQ(outcome(readRegion("...", body)), "ok");
}

TEST(OfflineRegionReader, RevisionMustBeAnUnsigned32BitNumber) {
    for (const char* revision : {"-1", "4294967296", "1.5", R"("3")", "null"}) {
        EXPECT_EQ(outcome(readRegion(
                      "r", R"({"configuration": {}, "revision": )" + std::string(revision) + "}")),
                  "Region must have a revision number")
            << revision;
    }
    EXPECT_EQ(outcome(readRegion("r", R"({"configuration": {}})")),
              "Region must have a revision number");
    const auto read = readRegion("r", R"({"configuration": {}, "revision": 4294967295})");
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->revision, 4294967295u);
}

TEST(OfflineRegionReader, OptionalMembersHaveTheirDefaults) {
    const auto read = readRegion("r", R"({"revision": 1, "configuration": {}})");
    ASSERT_TRUE(read.has_value());
    OfflineDataRegionMetadata expected;
    expected.id = "r";
    expected.revision = 1;
    EXPECT_EQ(*read, expected);
    EXPECT_EQ(read->last_updated, util::TimePoint{});
}

TEST(OfflineRegionReader, SizeMustBeANonNegativeInteger) {
    for (const char* size : {"-5", "3.5", R"("5")"}) {
        const auto pack = parsePackMetadata(
            parse(R"({"url": "u", "md5_checksum": "c", "size": )" + std::string(size) + "}"));
        ASSERT_FALSE(pack.has_value()) << size;
        EXPECT_EQ(pack.error(),
                  (OfflineDataError{OfflineDataErrorCode::InvalidResponse,
                                    "Region pack's size must be a positive integer"}));
    }
    const auto large =
        parsePackMetadata(parse(R"({"url": "u", "md5_checksum": "c", "size": 18446744073709551615,
                                    "format": 9})"));
    ASSERT_TRUE(large.has_value());
    EXPECT_EQ(large->bytes, std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(large->format, 1u);
    EXPECT_EQ(large->data_version, "");
}

TEST(OfflineRegionReader, PackEntryMustBeAnObject) {
    const auto pack = parsePackMetadata(parse("[]"));
    ASSERT_FALSE(pack.has_value());
    EXPECT_EQ(pack.error().message, "Region pack must be an object");
}

TEST(OfflineRegionReader, PacksOfOtherFormatsOrDomainsAreSkipped) {
    // The entries that are skipped would not even pass parsePackMetadata.
    const auto read = readRegion("r", regionWithPacks(R"([
        {"domain": "maps", "format": 2},
        {"domain": "Maps", "format": 1},
        {"domain": "terrain", "format": 1},
        {"domain": "navigation", "format": 0}
    ])"));
    ASSERT_TRUE(read.has_value()) << read.error().message;
    EXPECT_FALSE(read->mapPack.has_value());
    EXPECT_FALSE(read->navigationPack.has_value());
}

TEST(OfflineRegionReader, LaterPackOfTheSameDomainReplacesTheEarlier) {
    const auto read = readRegion("r", regionWithPacks(R"([
        {"domain": "maps", "format": 1, "url": "first", "md5_checksum": "a", "size": 1},
        {"domain": "navigation", "format": 1, "url": "nav", "md5_checksum": "n", "size": 3},
        {"domain": "maps", "format": 1, "url": "second", "md5_checksum": "b", "size": 2,
         "data_version": "v2"},
        {"domain": "maps", "format": 2, "url": "newer", "md5_checksum": "c", "size": 3}
    ])"));
    ASSERT_TRUE(read.has_value()) << read.error().message;
    ASSERT_TRUE(read->mapPack.has_value());
    EXPECT_EQ(read->mapPack->url, "second");
    EXPECT_EQ(read->mapPack->md5_checksum, "b");
    EXPECT_EQ(read->mapPack->bytes, 2u);
    EXPECT_EQ(read->mapPack->data_version, "v2");
    EXPECT_EQ(read->mapPack->format, 1u);
    ASSERT_TRUE(read->navigationPack.has_value());
    EXPECT_EQ(read->navigationPack->url, "nav");
}

TEST(OfflineRegionReader, DomainMarkersInTheConfigurationAreIgnored) {
    const auto read = readRegion("r", R"({"revision": 1,
        "configuration": {"maps": false, "navigation": {}},
        "packs": [)" + mapsEntry + "]}");
    ASSERT_TRUE(read.has_value()) << read.error().message;
    EXPECT_TRUE(read->mapPack.has_value());
    EXPECT_FALSE(read->navigationPack.has_value());
}

TEST(OfflineRegionReader, NullOrMissingGeographyMeansNone) {
    for (const char* configuration : {"{}", R"({"geography": null})"}) {
        const auto read = readRegion(
            "r", R"({"revision": 1, "configuration": )" + std::string(configuration) + "}");
        ASSERT_TRUE(read.has_value()) << configuration;
        EXPECT_TRUE(read->geography.is<geometry::empty>()) << configuration;
    }
}

TEST(OfflineRegionReader, FeatureGeographyGivesItsGeometry) {
    const auto read = readRegion("r", R"({"revision": 1, "configuration": {"geography":
        {"type": "Feature", "id": 5, "properties": {"a": 1},
         "geometry": {"type": "Point", "coordinates": [1, 2, 3]}}}})");
    ASSERT_TRUE(read.has_value()) << read.error().message;
    EXPECT_EQ(read->geography, geometry::geometry(geometry::point{1, 2}));
}

TEST(OfflineRegionReader, GeographyWithoutAnObjectGeometryIsTolerated) {
    // Both fail in the GeoJSON reader with "Geometry must be an object"; the region is kept
    // without an outline.
    for (
        const char* geography :
        {R"({"type": "Feature", "geometry": null})",
         R"({"type": "GeometryCollection", "geometries": [{"type": "Point", "coordinates": [1, 2]}, 5]})"}) {
        const auto read = readRegion("r", R"({"revision": 1, "configuration": {"geography": )" +
                                              std::string(geography) + "}}");
        ASSERT_TRUE(read.has_value()) << geography;
        EXPECT_TRUE(read->geography.is<geometry::empty>()) << geography;
    }
    // Other GeoJSON failures are not tolerated.
    EXPECT_EQ(outcome(readRegion("r", R"({"revision": 1, "configuration": {"geography":
                  {"type": "Feature"}}})")),
              "Region geography must be a GeoJSON feature: Feature must have a geometry property");
}

TEST(OfflineRegionReader, DeeplyNestedGeographyWithinTheParserBound) {
    std::string geography;
    const int depth = 200;
    for (int level = 0; level < depth; ++level) {
        geography += R"({"type": "GeometryCollection", "geometries": [)";
    }
    geography += R"({"type": "Point", "coordinates": [1, 2]})";
    for (int level = 0; level < depth; ++level) {
        geography += "]}";
    }
    const auto read =
        readRegion("r", R"({"revision": 1, "configuration": {"geography": )" + geography + "}}");
    ASSERT_TRUE(read.has_value()) << read.error().message;
    const geometry::geometry* shape = &read->geography;
    for (int level = 0; level < depth; ++level) {
        ASSERT_TRUE(shape->is<geometry::geometry_collection>());
        ASSERT_EQ(shape->get<geometry::geometry_collection>().size(), 1u);
        shape = &shape->get<geometry::geometry_collection>().front();
    }
    EXPECT_EQ(*shape, geometry::geometry(geometry::point{1, 2}));
}

}  // namespace
}  // namespace terrane::common
