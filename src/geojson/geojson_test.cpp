#include "geojson/geojson.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>

#include "terrane/geojson/geojson.hpp"

namespace {

namespace geo = terrane::geometry;
using terrane::feature::feature;
using terrane::feature::feature_collection;
using terrane::feature::identifier;
using terrane::feature::value;
using terrane::geojson::geojson;
using testing::StartsWith;

const char* const polygonMessage =
    "Polygon must be described by 4 or more coordinate points. Improper nesting can also lead "
    "to this error. Double check that the coordinates are properly nested and there are 4 or "
    "more coordinates.";
const char* const lineStringMessage = "A line string must have two or more coordinate points.";
const char* const arrayOfPointsMessage =
    "coordinates must be an array of points describing linestring or an array of arrays "
    "describing polygons and line strings.";

std::string failure(const std::string& text) {
    auto result = terrane::geojson::parse(text);
    EXPECT_FALSE(result.has_value()) << text;
    return result.has_value() ? std::string() : result.error();
}

geojson read(const std::string& text) {
    auto result = terrane::geojson::parse(text);
    EXPECT_TRUE(result.has_value()) << text << ": " << result.error();
    return result.has_value() ? *result : geojson();
}

geo::geometry readGeometry(const std::string& text) {
    geojson document = read(text);
    EXPECT_TRUE(document.is<geo::geometry>()) << text;
    return document.is<geo::geometry>() ? document.get<geo::geometry>() : geo::geometry();
}

feature readFeature(const std::string& text) {
    geojson document = read(text);
    EXPECT_TRUE(document.is<feature>()) << text;
    return document.is<feature>() ? document.get<feature>() : feature();
}

std::string geometryWith(const std::string& type, const std::string& coordinates) {
    return R"({"type":")" + type + R"(","coordinates":)" + coordinates + "}";
}

std::string featureWith(const std::string& members) {
    return R"({"type":"Feature","geometry":{"type":"Point","coordinates":[1,2]})" + members + "}";
}

TEST(GeoJsonDocument, ReadsEachKindOfDocument) {
    EXPECT_EQ(readGeometry(geometryWith("Point", "[1.5,-2]")), geo::geometry(geo::point(1.5, -2)));

    feature f = readFeature(featureWith(""));
    EXPECT_EQ(f.geometry, geo::geometry(geo::point(1, 2)));
    EXPECT_TRUE(f.properties.empty());
    EXPECT_FALSE(f.id.has_value());

    geojson collection = read(R"({"type":"FeatureCollection","features":[)" + featureWith("") +
                              "," + featureWith(R"(,"id":"b")") + "]}");
    ASSERT_TRUE(collection.is<feature_collection>());
    const auto& features = collection.get<feature_collection>();
    ASSERT_EQ(features.size(), 2u);
    EXPECT_FALSE(features[0].id.has_value());
    EXPECT_EQ(features[1].id, identifier(std::string("b")));

    EXPECT_TRUE(read(R"({"type":"FeatureCollection","features":[]})").is<feature_collection>());
}

TEST(GeoJsonDocument, RejectsMalformedDocuments) {
    EXPECT_EQ(failure("[]"), "GeoJSON must be an object");
    EXPECT_EQ(failure("null"), "GeoJSON must be an object");
    EXPECT_EQ(failure(R"({"coordinates":[1,2]})"), "GeoJSON must have a type property");
    EXPECT_EQ(failure(R"({"type":"FeatureCollection"})"),
              "FeatureCollection must have features property");
    EXPECT_EQ(failure(R"({"type":"FeatureCollection","features":{}})"),
              "FeatureCollection features property must be an array");
    EXPECT_EQ(failure(R"({"type":"FeatureCollection","features":[1]})"),
              "Feature must be an object");
    EXPECT_EQ(failure(R"({"type":"FeatureCollection","features":[{"geometry":null}]})"),
              "Feature must have a type property");
    EXPECT_EQ(failure(R"({"type":"FeatureCollection","features":[{"type":"Point"}]})"),
              "Feature type must be Feature");
    EXPECT_EQ(failure(R"({"type":"FeatureCollection","features":[{"type":"Feature"}]})"),
              "Feature must have a geometry property");
    EXPECT_EQ(failure(R"({"type":"feature","geometry":null})"),
              "feature geometry must have a coordinates property");
    EXPECT_EQ(failure(R"({"type":7})"), "Geometry type must be a string");
}

TEST(GeoJsonDocument, JsonErrorsUseTheParseErrorForm) {
    EXPECT_EQ(failure(""), "Parse error at offset 0: The document is empty.");
    EXPECT_EQ(failure(R"({"type":"Point"} x)"),
              "Parse error at offset 17: The document root must not be followed by other values.");
    const std::string deep(100000, '[');
    EXPECT_EQ(failure(deep),
              "Parse error at offset 512: The document is nested more deeply than 512 levels.");
}

TEST(GeoJsonFeature, IdentifierKindFollowsTheNumber) {
    EXPECT_EQ(readFeature(featureWith(R"(,"id":7)")).id, identifier(std::uint64_t{7}));
    EXPECT_EQ(readFeature(featureWith(R"(,"id":-7)")).id, identifier(std::int64_t{-7}));
    EXPECT_EQ(readFeature(featureWith(R"(,"id":7.5)")).id, identifier(7.5));
    EXPECT_EQ(readFeature(featureWith(R"(,"id":7.0)")).id, identifier(7.0));
    EXPECT_EQ(readFeature(featureWith(R"(,"id":18446744073709551616)")).id,
              identifier(18446744073709551616.0));
    EXPECT_EQ(readFeature(featureWith(R"(,"id":"x7")")).id, identifier(std::string("x7")));
    EXPECT_EQ(failure(featureWith(R"(,"id":true)")), "Feature id must be a string or number");
    EXPECT_EQ(failure(featureWith(R"(,"id":null)")), "Feature id must be a string or number");
    EXPECT_EQ(failure(featureWith(R"(,"id":[7])")), "Feature id must be a string or number");
}

TEST(GeoJsonFeature, PropertiesUseTheValueClassification) {
    feature f = readFeature(featureWith(
        R"(,"properties":{"n":null,"b":true,"u":5,"s":-5,"d":5.0,"t":"x","a":[1],"o":{"k":2},"u":9})"));
    const terrane::feature::property_map expected{
        {"n", value()},
        {"b", true},
        {"u", std::uint64_t{5}},
        {"s", std::int64_t{-5}},
        {"d", 5.0},
        {"t", "x"},
        {"a", value::array_type{std::uint64_t{1}}},
        {"o", value::object_type{{"k", std::uint64_t{2}}}},
    };
    EXPECT_EQ(f.properties, expected);
    EXPECT_TRUE(readFeature(featureWith(R"(,"properties":{})")).properties.empty());

    EXPECT_EQ(failure(featureWith(R"(,"properties":null)")), "properties must be an object");
    EXPECT_EQ(failure(featureWith(R"(,"properties":[])")), "properties must be an object");
}

TEST(GeoJsonFeature, GeometryMustBeAGeometryObject) {
    EXPECT_EQ(failure(R"({"type":"Feature","geometry":null})"), "Geometry must be an object");
    EXPECT_EQ(failure(R"({"type":"Feature","geometry":{"coordinates":[1,2]}})"),
              "Geometry must have a type property");
    // The geometry is read before the id and the properties.
    EXPECT_EQ(failure(R"({"type":"Feature","id":true,"properties":1,"geometry":{"type":"X"}})"),
              "X geometry must have a coordinates property");
    EXPECT_EQ(
        failure(
            R"({"type":"Feature","properties":1,"id":true,"geometry":{"type":"Point","coordinates":[0,0]}})"),
        "Feature id must be a string or number");
}

TEST(GeoJsonGeometry, PositionsKeepTheirFirstTwoNumbers) {
    EXPECT_EQ(readGeometry(geometryWith("Point", "[1,2,3]")), geo::geometry(geo::point(1, 2)));
    EXPECT_EQ(readGeometry(geometryWith("Point", "[-1,18446744073709551615]")),
              geo::geometry(geo::point(-1, 18446744073709551615.0)));
    EXPECT_EQ(failure(geometryWith("Point", "[1]")),
              "coordinates array must have at least 2 numbers");
    EXPECT_EQ(failure(geometryWith("Point", "[]")),
              "coordinates array must have at least 2 numbers");
    EXPECT_EQ(failure(geometryWith("Point", R"([1,"2"])")),
              "coordinates array must have at least 2 numbers");
    EXPECT_EQ(failure(geometryWith("Point", "5")), "coordinates property must be an array");
    EXPECT_EQ(failure(R"({"type":"Point"})"), "Point geometry must have a coordinates property");
    EXPECT_EQ(failure(geometryWith("MultiPoint", "[[1,2],3]")), "coordinates must be an array.");
    EXPECT_EQ(readGeometry(geometryWith("MultiPoint", "[[1,2],[3,4]]")),
              geo::geometry(geo::multi_point{{1, 2}, {3, 4}}));
    EXPECT_EQ(readGeometry(geometryWith("MultiPoint", "[]")), geo::geometry(geo::multi_point{}));
}

TEST(GeoJsonGeometry, LineStringsNeedTwoPoints) {
    EXPECT_EQ(failure(geometryWith("LineString", "[[1,2]]")), lineStringMessage);
    EXPECT_EQ(failure(geometryWith("LineString", "[]")), lineStringMessage);
    EXPECT_EQ(failure(geometryWith("LineString", "[1,2]")), "coordinates must be an array.");
    EXPECT_EQ(readGeometry(geometryWith("LineString", "[[1,2],[3,4]]")),
              geo::geometry(geo::line_string{{1, 2}, {3, 4}}));

    EXPECT_EQ(failure(geometryWith("MultiLineString", "[[[1,2],[3,4]],[[5,6]]]")),
              lineStringMessage);
    EXPECT_EQ(failure(geometryWith("MultiLineString", "[[[1,2],[3,4]],7]")), arrayOfPointsMessage);
    // Every line string is sized before any position is read.
    EXPECT_EQ(failure(geometryWith("MultiLineString", "[[[1],[3,4]],[[5,6]]]")), lineStringMessage);
    EXPECT_EQ(readGeometry(geometryWith("MultiLineString", "[[[1,2],[3,4]],[[5,6],[7,8],[9,0]]]")),
              geo::geometry(geo::multi_line_string{{{1, 2}, {3, 4}}, {{5, 6}, {7, 8}, {9, 0}}}));
}

TEST(GeoJsonGeometry, PolygonRingsNeedFourPointsButNotClosure) {
    EXPECT_EQ(failure(geometryWith("Polygon", "[[[0,0],[1,0],[0,1]]]")), polygonMessage);
    EXPECT_EQ(readGeometry(geometryWith("Polygon", "[[[0,0],[1,0],[1,1],[0,1]]]")),
              geo::geometry(geo::polygon{{{0, 0}, {1, 0}, {1, 1}, {0, 1}}}));
    EXPECT_EQ(failure(geometryWith("Polygon", "[[[0,0],[1,0],[1,1],[0,1]],7]")),
              "Coordinates must be an array of arrays, each describing a polygon.");
    EXPECT_EQ(failure(geometryWith("Polygon", "[[[0,0],[1,0],[1,1],[0,0]],[[0,0]]]")),
              polygonMessage);
    EXPECT_EQ(failure(geometryWith("Polygon", "[[[0,0],[1,0],[1,1],0]]")),
              "coordinates must be an array.");

    EXPECT_EQ(failure(geometryWith("MultiPolygon", "[[[[0,0],[1,0],[1,1],[0,0]]],5]")),
              "Coordinates must be nested more deeply.");
    EXPECT_EQ(failure(geometryWith("MultiPolygon", "[[[[0,0],[1,0],[1,1],[0,0]]],[[[0,0]]]]")),
              polygonMessage);
    EXPECT_EQ(readGeometry(geometryWith(
                  "MultiPolygon", "[[[[0,0],[1,0],[1,1],[0,0]]],[[[5,5],[6,5],[6,6],[5,5]]]]")),
              geo::geometry(geo::multi_polygon{geo::polygon{{{0, 0}, {1, 0}, {1, 1}, {0, 0}}},
                                               geo::polygon{{{5, 5}, {6, 5}, {6, 6}, {5, 5}}}}));
}

TEST(GeoJsonGeometry, UnknownTypesFailByWhetherTheyHaveCoordinates) {
    EXPECT_EQ(failure(geometryWith("Circle", "[1,2]")), "Circle not yet implemented");
    EXPECT_EQ(failure(R"({"type":"Circle","radius":3})"),
              "Circle geometry must have a coordinates property");
    EXPECT_EQ(failure(geometryWith("point", "[1,2]")), "point not yet implemented");
    EXPECT_EQ(failure(geometryWith("Circle", "{}")), "coordinates property must be an array");
}

TEST(GeoJsonGeometry, GeometryCollectionsNest) {
    EXPECT_EQ(readGeometry(R"({"type":"GeometryCollection","geometries":[)"
                           R"({"type":"Point","coordinates":[1,2]},)"
                           R"({"type":"GeometryCollection","geometries":[)"
                           R"({"type":"LineString","coordinates":[[0,0],[1,1]]}]}]})"),
              geo::geometry(geo::geometry_collection{
                  geo::point(1, 2), geo::geometry_collection{geo::line_string{{0, 0}, {1, 1}}}}));
    EXPECT_EQ(failure(R"({"type":"GeometryCollection"})"),
              "GeometryCollection must have a geometries property");
    EXPECT_EQ(failure(R"({"type":"GeometryCollection","geometries":{}})"),
              "GeometryCollection geometries property must be an array");
    EXPECT_EQ(failure(R"({"type":"GeometryCollection","geometries":[)"
                      R"({"type":"GeometryCollection","geometries":[null]}]})"),
              "Geometry must be an object");
}

TEST(GeoJsonPrivateReaders, ReadThePartsTheirOwnWay) {
    using terrane::geojson::convert;
    rapidjson::Document document;
    document.Parse(R"([[[[0,0],[1,0],[1,1]]],[1,2],{"a":[1,2]}])");
    ASSERT_FALSE(document.HasParseError());

    // The container readers check only shapes; sizes belong to the geometry reader.
    EXPECT_EQ(convert<geo::polygon>(document[0u]).front().size(), 3u);
    EXPECT_THROW(terrane::geojson::validatePolygon(document[0u]), std::runtime_error);
    EXPECT_EQ(convert<geo::point>(document[1u]), geo::point(1, 2));
    EXPECT_EQ(
        convert<value>(document[2u]),
        value(value::object_type{{"a", value::array_type{std::uint64_t{1}, std::uint64_t{2}}}}));
    try {
        convert<geo::line_string>(document[2u]);
        ADD_FAILURE() << "expected a throw";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), arrayOfPointsMessage);
    }
    try {
        convert<feature_collection>(document[1u]);
        ADD_FAILURE() << "expected a throw";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "GeoJSON must be an object");
    }
}

TEST(GeoJsonWrite, EachKindWritesAndReadsBack) {
    const geo::polygon square{{{0, 0}, {1, 0}, {1, 1}, {0, 1}, {0, 0}},
                              {{0.2, 0.2}, {0.4, 0.2}, {0.4, 0.4}, {0.2, 0.2}}};
    const geo::geometry shapes[] = {
        geo::point(1.5, -2),
        geo::line_string{{0, 0}, {1, 1}},
        square,
        geo::multi_point{{1, 2}, {3, 4}},
        geo::multi_line_string{{{0, 0}, {1, 1}}, {{2, 2}, {3, 3}}},
        geo::multi_polygon{square, square},
        geo::geometry_collection{geo::point(1, 2),
                                 geo::geometry_collection{geo::line_string{{0, 0}, {1, 1}}},
                                 geo::geometry_collection{}},
    };
    for (const auto& shape : shapes) {
        const std::string text = terrane::geojson::stringify(shape);
        EXPECT_EQ(readGeometry(text), shape) << text;
    }
}

TEST(GeoJsonWrite, WritesCompactTypedObjects) {
    using terrane::geojson::stringify;
    EXPECT_EQ(stringify(geo::point(1, 2.5)), R"({"type":"Point","coordinates":[1.0,2.5]})");
    EXPECT_EQ(stringify(geo::multi_point{}), R"({"type":"MultiPoint","coordinates":[]})");
    EXPECT_EQ(stringify(geo::polygon{{{0, 0}, {1, 0}, {1, 1}, {0, 0}}}),
              R"({"type":"Polygon","coordinates":[[[0.0,0.0],[1.0,0.0],[1.0,1.0],[0.0,0.0]]]})");
    EXPECT_EQ(
        stringify(geo::geometry_collection{geo::point(0, 0)}),
        R"({"type":"GeometryCollection","geometries":[{"type":"Point","coordinates":[0.0,0.0]}]})");
    // No GeoJSON text means "no geometry"; an empty collection is the nearest readable thing.
    EXPECT_EQ(stringify(geo::empty{}), R"({"type":"GeometryCollection","geometries":[]})");
    EXPECT_EQ(readGeometry(stringify(geo::empty{})), geo::geometry(geo::geometry_collection{}));
}

TEST(GeoJsonWrite, PrivateWriterBuildsTheDomInTheCallersAllocator) {
    rapidjson::Document document;
    rapidjson::Value json = terrane::geojson::convert(
        geo::geometry(geo::line_string{{1, 2}, {3, 4}}), document.GetAllocator());
    ASSERT_TRUE(json.IsObject());
    EXPECT_STREQ(json["type"].GetString(), "LineString");
    ASSERT_EQ(json["coordinates"].Size(), 2u);
    EXPECT_EQ(json["coordinates"][1u][0u].GetDouble(), 3.0);
    EXPECT_EQ(terrane::geojson::convert<geo::geometry>(json),
              geo::geometry(geo::line_string{{1, 2}, {3, 4}}));
}

TEST(GeoJsonDepth, DeepCollectionsAreWrittenIterativelyAndRefusedOnRead) {
    const std::size_t levels = 100000;
    geo::geometry nested = geo::geometry_collection{};
    for (std::size_t i = 1; i < levels; ++i) {
        geo::geometry_collection outer;
        outer.push_back(std::move(nested));
        nested = std::move(outer);
    }
    const std::string prefix = R"({"type":"GeometryCollection","geometries":[)";
    const std::string text = terrane::geojson::stringify(nested);
    EXPECT_EQ(text.size(), levels * (prefix.size() + 2));
    EXPECT_EQ(text.substr(0, 2 * prefix.size()), prefix + prefix);
    EXPECT_THAT(failure(text), testing::HasSubstr("nested more deeply than 512 levels"));

    // A hand-built DOM escapes the parser's bound; the reader's own bound catches it.
    rapidjson::Document document;
    rapidjson::Value json = terrane::geojson::convert(nested, document.GetAllocator());
    EXPECT_THROW(terrane::geojson::convert<geo::geometry>(json), std::runtime_error);

    // The geometry's destructor recurses; take it apart one level at a time.
    while (auto* collection = nested.get_if<geo::geometry_collection>()) {
        if (collection->empty()) {
            break;
        }
        geo::geometry inner = std::move(collection->front());
        nested = std::move(inner);
    }
}

TEST(GeoJsonRobustness, MalformedInputNeverCrashes) {
    const std::string sample =
        R"({"type":"FeatureCollection","features":[{"type":"Feature","id":3,"properties":{"a":[1]},)"
        R"("geometry":{"type":"GeometryCollection","geometries":[{"type":"MultiPolygon",)"
        R"("coordinates":[[[[0,0],[1,0],[1,1],[0,0]]]]},{"type":"MultiLineString",)"
        R"("coordinates":[[[0,0],[1,1]]]}]}}]})";
    ASSERT_TRUE(terrane::geojson::parse(sample).has_value());
    std::mt19937 random(7);
    const std::string alphabet = "[]{}\":,0123456789-.e tfnul\x00";
    for (int round = 0; round < 5000; ++round) {
        std::string mutated = sample;
        const int edits = 1 + static_cast<int>(random() % 3);
        for (int e = 0; e < edits; ++e) {
            mutated[random() % mutated.size()] = alphabet[random() % alphabet.size()];
        }
        auto result = terrane::geojson::parse(mutated);
        if (!result) {
            EXPECT_FALSE(result.error().empty());
        }
    }
    for (std::size_t length = 0; length < sample.size(); ++length) {
        EXPECT_THAT(terrane::geojson::parse(sample.substr(0, length)).error(),
                    StartsWith("Parse error at offset "));
    }
}

}  // namespace
