#include "offline/offline_storage.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "value/json_reader.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

rapidjson::Document parse(const std::string& text) {
    rapidjson::Document document;
    EXPECT_TRUE(json::parseDocument(text, document)) << text;
    return document;
}

expected<OfflineDataRegionMetadata, OfflineDataError> readRegion(const std::string& id,
                                                                 const std::string& text) {
    const rapidjson::Value idValue(id.data(), static_cast<rapidjson::SizeType>(id.size()));
    return parseRegionMetadata(idValue, parse(text));
}

TEST(OfflineStorage, MetadataReadsBackAsTheSameRegion) {
    using namespace geometry;
    const linear_ring outer{{0, 0}, {10, 0}, {10, 10}, {0, 10}, {0, 0}};
    const linear_ring hole{{2, 2}, {3, 2}, {3, 3}, {2, 2}};
    // The GeoJSON tests show each kind of geometry written and read back.
    for (const geometry::geometry& geography :
         std::vector<geometry::geometry>{empty{}, polygon{outer, hole}}) {
        OfflineDataRegionMetadata region;
        region.id = "region-a";
        region.revision = 4294967295u;
        region.name = "Name with \"quotes\" and \xC3\xBC";
        region.description = "Line\nbreak";
        region.last_updated = util::TimePoint(1614834367250ms);
        region.geography = geography;
        region.mapPack = OfflineDataPackMetadata{"u", "c", 1ull << 40, 1, "v1"};
        region.navigationPack = OfflineDataPackMetadata{"terrane://offline-data/p", "d", 0, 1, ""};
        EXPECT_EQ(readRegion("region-a", serializeMetadata(region)), region) << geography.which();
    }
}

TEST(OfflineStorage, RecordsAreWrittenMemberByMemberAndReadLeniently) {
    const std::string configuration = R"({
    "base_url": "https://api.example.com",
    "username": "alice"
})";
    const std::string allMembers = R"({
    "expires": 1700000000123,
    "max_age": 3600,
    "etag": "\"abc\"",
    "bytes": 1234,
    "complete": true,
    "verified": false
})";
    const OfflineDataPackHeaders headers{
        util::TimePoint(1700000000123ms), 3600, "\"abc\"", 1234, true, false};
    EXPECT_EQ(serializeConfiguration("https://api.example.com", "alice"), configuration);
    EXPECT_EQ(serializePackHeaders(headers), allMembers);

    const OfflineDataPackHeaders defaults;
    const auto largest = std::numeric_limits<std::int64_t>::max();
    const std::pair<std::string, optional<OfflineDataPackHeaders>> rows[] = {
        {allMembers, headers},
        {"{}", defaults},
        // Wrong types keep their defaults; only the literal true counts.
        {R"({"expires": -1, "max_age": 1.5, "etag": 7, "bytes": -3, "complete": "true",
             "verified": 1})",
         defaults},
        {R"({"verified":true,"bytes":10,"expires":5000,"complete":true})",
         OfflineDataPackHeaders{util::TimePoint(5s), -1, "", 10, true, true}},
        {R"({"expires": 18446744073709551615, "max_age": 18446744073709551615})",
         OfflineDataPackHeaders{util::TimePoint::max(), largest, "", 0, false, false}},
        {"", nullopt},
        {"[]", nullopt},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(parsePackHeaders(text), expected) << text.substr(0, 80);
    }
}

// A region read back in a few words: the failure's message, or what was read.
std::string summary(const expected<OfflineDataRegionMetadata, OfflineDataError>& read) {
    if (!read) {
        EXPECT_EQ(read.error().code, OfflineDataErrorCode::InvalidResponse);
        return read.error().message;
    }
    const auto packOf = [](const optional<OfflineDataPackMetadata>& p) {
        return p ? p->url + "/" + std::to_string(p->bytes) + "/" + p->data_version : "-"s;
    };
    return "r" + std::to_string(read->revision) + " maps=" + packOf(read->mapPack) +
           " nav=" + packOf(read->navigationPack) +
           " geo=" + std::to_string(read->geography.which());
}

TEST(OfflineStorage, EachRegionDocumentReadsAsExpected) {
    const auto with = [](const std::string& members) {
        return R"({"revision": 3, "configuration": {)" + members + "}";
    };
    const auto packs = [&](const std::string& entries) {
        return with(R"(}, "packs": [)" + entries + "]");
    };
    const std::string maps = R"({"domain": "maps", "format": 1, "url": "u", "md5_checksum": "c")";
    const std::pair<std::string, std::string> rows[] = {
        {with("}"), "r3 maps=- nav=- geo=0"},
        // Entries of other formats or domains are skipped unread; a later one of a domain wins.
        {packs(R"({"domain": "maps", "format": 2}, {"domain": "Maps", "format": 1},
                  {"domain": "terrain", "format": 1}, {"domain": "navigation", "format": 0})"),
         "r3 maps=- nav=- geo=0"},
        {packs(maps + R"(, "size": 1}, {"domain": "navigation", "format": 1, "url": "n",
                  "md5_checksum": "c", "size": 18446744073709551615},)" +
               maps + R"(, "size": 2, "data_version": "v2"})"),
         "r3 maps=u/2/v2 nav=n/18446744073709551615/ geo=0"},
        {with(R"("geography": {"type": "Feature", "geometry": {"type": "Point",
                  "coordinates": [1, 2]}}})"),
         "r3 maps=- nav=- geo=1"},
        // A geography without an object geometry is tolerated: the region has no outline.
        {with(R"("geography": {"type": "Feature", "geometry": null}})"), "r3 maps=- nav=- geo=0"},
        {with(R"("geography": {"type": "Feature"}})"),
         "Region geography must be a GeoJSON feature: Feature must have a geometry property"},
    };
    for (const auto& [document, outcome] : rows) {
        EXPECT_EQ(summary(readRegion("r", document)), outcome) << document;
    }
}

// Starts from a document that breaks each of these checks and repairs one thing at a time, so
// each message is shown to come before all that follow it. A check of one condition only is left
// to the documents that pass it, and of the pack's own members only one is shown.
TEST(OfflineStorage, RegionChecksRunInOrderAndTheFirstFailureWins) {
    rapidjson::Document id;
    id.SetString("a/b");
    rapidjson::Document region;
    region.SetArray();
    auto& allocator = region.GetAllocator();
    const auto set = [&](const char* name, const std::string& json) {
        region.RemoveMember(name);
        region.AddMember(rapidjson::Value(name, allocator),
                         rapidjson::Value(parse(json), allocator), allocator);
    };
    const auto read = [&] { return summary(parseRegionMetadata(id, region)); };
    EXPECT_EQ(read(), "Region ID must be a valid directory name");
    id.SetString("berlin");
    EXPECT_EQ(read(), "Region must be an object");
    region.SetObject();
    const std::pair<const char*, std::string> broken[] = {{"revision", "-1"},
                                                          {"last_updated", R"("yesterday")"},
                                                          {"configuration", "[]"},
                                                          {"packs", "{}"}};
    for (const auto& [name, json] : broken) {
        set(name, json);
    }
    // The member to set, if any, its new value and the failure that comes next.
    const std::tuple<const char*, std::string, std::string> steps[] = {
        {nullptr, "", "Region must have a revision number"},
        {"revision", "3", "Region update time must be an RFC3339-formatted timestamp"},
        {"last_updated", R"("2021-03-04T05:06:07Z")",
         "Region revision must have a configuration object"},
        {"configuration", R"({"geography": {"type": "FeatureCollection", "features": []}})",
         "Region geography must be a GeoJSON Feature or Geometry"},
        {"configuration", R"({"geography": null})", "Region revision must have a packs array"},
        {"packs", R"([{"format": "1", "domain": 1}])", "Region pack specify a format number"},
        {"packs", R"([{"format": 1, "domain": 1}])", "Region pack specify a domain"},
        {"packs", R"([{"format": 1, "domain": "maps", "url": "u", "md5_checksum": 1}])",
         "Region pack's md5_checksum must be a string"},
        {"packs",
         R"([{"format": 1, "domain": "maps", "url": "u", "md5_checksum": "c", "size": 1}])",
         "r3 maps=u/1/ nav=- geo=0"},
    };
    for (const auto& [name, fix, next] : steps) {
        if (name != nullptr) {
            set(name, fix);
        }
        EXPECT_EQ(read(), next);
    }
}

}  // namespace
}  // namespace terrane::common
