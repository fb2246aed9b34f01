#include "geojson/geojson.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "terrane/geojson/geojson.hpp"

namespace {

namespace geo = terrane::geometry;
using terrane::common::unexpected;
using namespace terrane::feature;
using terrane::geojson::convert;
using terrane::geojson::geojson;
using terrane::geojson::parse;
using testing::StrEq;
using testing::ThrowsMessage;

std::string geometryWith(const std::string& type, const std::string& coordinates) {
    return R"({"type":")" + type + R"(","coordinates":)" + coordinates + "}";
}

std::string featureWith(const std::string& members) {
    return R"({"type":"Feature","geometry":{"type":"Point","coordinates":[1,2]})" + members + "}";
}

// The feature that featureWith describes.
feature featureOf(std::optional<identifier> id, property_map properties = {}) {
    return feature{geo::point(1, 2), std::move(properties), std::move(id)};
}

// Every geometry read also writes back to compact text that reads as the same geometry.
TEST(GeoJsonRead, EachKindOfDocumentReadsAndEachGeometryWritesBack) {
    using geo::geometry;
    const std::vector<std::pair<std::string, geojson>> rows{
        {geometryWith("Point", "[1.5,-2]"), geometry(geo::point(1.5, -2))},
        {geometryWith("MultiPoint", "[[1,2],[3,4]]"), geometry(geo::multi_point{{1, 2}, {3, 4}})},
        {geometryWith("LineString", "[[1,2],[3,4]]"), geometry(geo::line_string{{1, 2}, {3, 4}})},
        {geometryWith("MultiLineString", "[[[1,2],[3,4]],[[5,6],[7,8],[9,0]]]"),
         geometry(geo::multi_line_string{{{1, 2}, {3, 4}}, {{5, 6}, {7, 8}, {9, 0}}})},
        // Rings need four points but not closure.
        {geometryWith("Polygon", "[[[0,0],[1,0],[1,1],[0,1]],[[0,0],[2,0],[2,2],[0,0]]]"),
         geometry(
             geo::polygon{{{0, 0}, {1, 0}, {1, 1}, {0, 1}}, {{0, 0}, {2, 0}, {2, 2}, {0, 0}}})},
        {geometryWith("MultiPolygon", "[[[[0,0],[1,0],[1,1],[0,0]]],[[[5,5],[6,5],[6,6],[5,5]]]]"),
         geometry(geo::multi_polygon{geo::polygon{{{0, 0}, {1, 0}, {1, 1}, {0, 0}}},
                                     geo::polygon{{{5, 5}, {6, 5}, {6, 6}, {5, 5}}}})},
        {R"({"type":"GeometryCollection","geometries":[{"type":"Point","coordinates":[1,2]},)"
         R"({"type":"GeometryCollection","geometries":[)"
         R"({"type":"LineString","coordinates":[[0,0],[1,1]]}]},)"
         R"({"type":"GeometryCollection","geometries":[]}]})",
         geometry(geo::geometry_collection{
             geo::point(1, 2), geo::geometry_collection{geo::line_string{{0, 0}, {1, 1}}},
             geo::geometry_collection{}})},
        {featureWith(""), featureOf(std::nullopt)},
        {featureWith(R"(,"id":7)"), featureOf(identifier(std::uint64_t{7}))},
        {featureWith(R"(,"id":-7)"), featureOf(identifier(std::int64_t{-7}))},
        {featureWith(R"(,"id":7.0)"), featureOf(identifier(7.0))},
        // Properties read as values do, and a repeated member keeps its first occurrence.
        {featureWith(R"(,"properties":{"n":null,"a":[1],"a":2})"),
         featureOf(std::nullopt, {{"n", value()}, {"a", value::array_type{std::uint64_t{1}}}})},
        {R"({"type":"FeatureCollection","features":[)" + featureWith("") + "," +
             featureWith(R"(,"id":"b")") + "]}",
         feature_collection{featureOf(std::nullopt), featureOf(identifier(std::string("b")))}},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(parse(text), expected) << text;
        if (expected.is<geometry>()) {
            EXPECT_EQ(parse(terrane::geojson::stringify(expected.get<geometry>())), expected);
        }
    }
    // No GeoJSON text means "no geometry"; an empty collection is the nearest readable thing.
    EXPECT_EQ(terrane::geojson::stringify(geo::empty{}),
              R"({"type":"GeometryCollection","geometries":[]})");
}

// One row per family of faults: the other checks of a family differ only in their message.
TEST(GeoJsonRead, EveryFaultHasItsMessage) {
    const char* const lineStringMessage = "A line string must have two or more coordinate points.";
    const std::vector<std::pair<std::string, std::string>> rows{
        {"", "Parse error at offset 0: The document is empty."},
        {featureWith(R"(,"id":true)"), "Feature id must be a string or number"},
        {geometryWith("Point", "[1]"), "coordinates array must have at least 2 numbers"},
        {R"({"type":"Point"})", "Point geometry must have a coordinates property"},
        {geometryWith("LineString", "[[1,2]]"), lineStringMessage},
        {geometryWith("MultiLineString", "[[[1,2],[3,4]],7]"),
         "coordinates must be an array of points describing linestring or an array of arrays "
         "describing polygons and line strings."},
        // Every line string is sized before any position is read.
        {geometryWith("MultiLineString", "[[[1],[3,4]],[[5,6]]]"), lineStringMessage},
        {geometryWith("Polygon", "[[[0,0],[1,0],[0,1]]]"),
         "Polygon must be described by 4 or more coordinate points. Improper nesting can also lead "
         "to this error. Double check that the coordinates are properly nested and there are 4 or "
         "more coordinates."},
        {geometryWith("Circle", "[1,2]"), "Circle not yet implemented"},
        {R"({"type":"GeometryCollection","geometries":[{"type":"GeometryCollection","geometries":[null]}]})",
         "Geometry must be an object"},
    };
    for (const auto& [text, message] : rows) {
        EXPECT_EQ(parse(text), unexpected(message)) << text;
    }
}

// Only a geometry built in code reaches this bound: parsed text meets the parser's first.
TEST(GeoJsonRead, AGeometryCollectionStopsAtTheDepthBound) {
    rapidjson::Document document;
    geo::geometry nested = geo::geometry_collection{};
    for (std::size_t levels = 1; levels < 512; ++levels) {
        nested = geo::geometry_collection{nested};
    }
    EXPECT_EQ(convert<geo::geometry>(convert(nested, document.GetAllocator())), nested);
    EXPECT_THAT(
        [&] {
            convert<geo::geometry>(
                convert(geo::geometry_collection{nested}, document.GetAllocator()));
        },
        ThrowsMessage<std::runtime_error>(
            StrEq("GeometryCollection is nested more deeply than 512 levels")));
}

}  // namespace
