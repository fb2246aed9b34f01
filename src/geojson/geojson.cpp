#include "geojson/geojson.hpp"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "terrane/value/value_converter.hpp"
#include "value/json_value.hpp"

namespace terrane::geojson {

namespace {

constexpr const char* lineStringTooShort = "A line string must have two or more coordinate points.";
constexpr const char* notAnArrayOfPositions =
    "coordinates must be an array of points describing linestring or an array of arrays "
    "describing polygons and line strings.";

[[noreturn]] void fail(const std::string& message) {
    throw std::runtime_error(message);
}

std::string_view stringOf(const rapidjson_value& json) {
    return {json.GetString(), json.GetStringLength()};
}

// The member's value, or nullptr when absent. With a repeated name the first one counts, as it
// does when the same JSON is read into a value.
const rapidjson_value* member(const rapidjson_value& object, const char* name) {
    auto found = object.FindMember(name);
    return found == object.MemberEnd() ? nullptr : &found->value;
}

// Reads an array of positions, rings, line strings or polygons, in order.
template <typename Container>
Container convertElements(const rapidjson_value& json) {
    if (!json.IsArray()) {
        fail(notAnArrayOfPositions);
    }
    Container elements;
    elements.reserve(json.Size());
    for (const auto& element : json.GetArray()) {
        elements.push_back(convert<typename Container::value_type>(element));
    }
    return elements;
}

geometry::geometry convertGeometry(const rapidjson_value& json, std::size_t depth);

geometry::geometry_collection convertCollection(const rapidjson_value& json, std::size_t depth) {
    const rapidjson_value* geometries = member(json, "geometries");
    if (geometries == nullptr) {
        fail("GeometryCollection must have a geometries property");
    }
    if (!geometries->IsArray()) {
        fail("GeometryCollection geometries property must be an array");
    }
    // Only a DOM built by hand can get here: parsed text is bounded more tightly by
    // parseDocument, since every level costs an object and an array.
    if (depth == common::ValueConverter::maxNestingDepth) {
        fail("GeometryCollection is nested more deeply than " +
             std::to_string(common::ValueConverter::maxNestingDepth) + " levels");
    }
    geometry::geometry_collection collection;
    collection.reserve(geometries->Size());
    for (const auto& element : geometries->GetArray()) {
        collection.push_back(convertGeometry(element, depth + 1));
    }
    return collection;
}

geometry::geometry convertGeometry(const rapidjson_value& json, std::size_t depth) {
    if (!json.IsObject()) {
        fail("Geometry must be an object");
    }
    const rapidjson_value* type = member(json, "type");
    if (type == nullptr) {
        fail("Geometry must have a type property");
    }
    if (!type->IsString()) {
        fail("Geometry type must be a string");
    }
    const std::string_view name = stringOf(*type);
    if (name == "GeometryCollection") {
        return convertCollection(json, depth);
    }

    const rapidjson_value* coordinates = member(json, "coordinates");
    if (coordinates == nullptr) {
        fail(std::string(name) + " geometry must have a coordinates property");
    }
    if (!coordinates->IsArray()) {
        fail("coordinates property must be an array");
    }

    if (name == "Point") {
        return convert<geometry::point>(*coordinates);
    }
    if (name == "MultiPoint") {
        return convert<geometry::multi_point>(*coordinates);
    }
    if (name == "LineString") {
        if (coordinates->Size() < 2) {
            fail(lineStringTooShort);
        }
        return convert<geometry::line_string>(*coordinates);
    }
    if (name == "MultiLineString") {
        for (const auto& lineString : coordinates->GetArray()) {
            if (!lineString.IsArray()) {
                fail(notAnArrayOfPositions);
            }
            if (lineString.Size() < 2) {
                fail(lineStringTooShort);
            }
        }
        return convert<geometry::multi_line_string>(*coordinates);
    }
    if (name == "Polygon") {
        validatePolygon(*coordinates);
        return convert<geometry::polygon>(*coordinates);
    }
    if (name == "MultiPolygon") {
        for (const auto& polygon : coordinates->GetArray()) {
            validatePolygon(polygon);
        }
        return convert<geometry::multi_polygon>(*coordinates);
    }
    fail(std::string(name) + " not yet implemented");
}

// --- writing ---

template <typename Container>
rapidjson_value coordinatesOf(const Container& elements, rapidjson_allocator& allocator);

rapidjson_value coordinatesOf(const geometry::point& position, rapidjson_allocator& allocator) {
    rapidjson_value coordinates(rapidjson::kArrayType);
    coordinates.Reserve(2, allocator);
    coordinates.PushBack(position.x, allocator);
    coordinates.PushBack(position.y, allocator);
    return coordinates;
}

template <typename Container>
rapidjson_value coordinatesOf(const Container& elements, rapidjson_allocator& allocator) {
    rapidjson_value coordinates(rapidjson::kArrayType);
    coordinates.Reserve(static_cast<rapidjson::SizeType>(elements.size()), allocator);
    for (const auto& element : elements) {
        coordinates.PushBack(coordinatesOf(element, allocator), allocator);
    }
    return coordinates;
}

rapidjson_value typed(const char* type, const char* key, rapidjson_value content,
                      rapidjson_allocator& allocator) {
    rapidjson_value object(rapidjson::kObjectType);
    object.AddMember("type", rapidjson::StringRef(type), allocator);
    object.AddMember(rapidjson::StringRef(key), content, allocator);
    return object;
}

rapidjson_value collectionOf(rapidjson_value geometries, rapidjson_allocator& allocator) {
    return typed("GeometryCollection", "geometries", std::move(geometries), allocator);
}

// Any geometry but a non-empty collection: these are at most four arrays deep.
rapidjson_value writeFlat(const geometry::geometry& shape, rapidjson_allocator& allocator) {
    auto withCoordinates = [&](const char* type, const auto& content) {
        return typed(type, "coordinates", coordinatesOf(content, allocator), allocator);
    };
    return shape.match(
        [&](const geometry::empty&) {
            return collectionOf(rapidjson_value(rapidjson::kArrayType), allocator);
        },
        [&](const geometry::point& g) { return withCoordinates("Point", g); },
        [&](const geometry::line_string& g) { return withCoordinates("LineString", g); },
        [&](const geometry::polygon& g) { return withCoordinates("Polygon", g); },
        [&](const geometry::multi_point& g) { return withCoordinates("MultiPoint", g); },
        [&](const geometry::multi_line_string& g) { return withCoordinates("MultiLineString", g); },
        [&](const geometry::multi_polygon& g) { return withCoordinates("MultiPolygon", g); },
        [&](const geometry::geometry_collection&) -> rapidjson_value {
            // Handled by the caller's explicit stack.
            return collectionOf(rapidjson_value(rapidjson::kArrayType), allocator);
        });
}

}  // namespace

template <>
geometry::point convert<geometry::point>(const rapidjson_value& json) {
    if (!json.IsArray()) {
        fail("coordinates must be an array.");
    }
    // Entries that are not numbers leave fewer than two numbers to read.
    if (json.Size() < 2 || !json[0].IsNumber() || !json[1].IsNumber()) {
        fail("coordinates array must have at least 2 numbers");
    }
    return {json[0].GetDouble(), json[1].GetDouble()};
}

template <>
geometry::multi_point convert<geometry::multi_point>(const rapidjson_value& json) {
    return convertElements<geometry::multi_point>(json);
}

template <>
geometry::line_string convert<geometry::line_string>(const rapidjson_value& json) {
    return convertElements<geometry::line_string>(json);
}

template <>
geometry::linear_ring convert<geometry::linear_ring>(const rapidjson_value& json) {
    return convertElements<geometry::linear_ring>(json);
}

template <>
geometry::multi_line_string convert<geometry::multi_line_string>(const rapidjson_value& json) {
    return convertElements<geometry::multi_line_string>(json);
}

template <>
geometry::polygon convert<geometry::polygon>(const rapidjson_value& json) {
    return convertElements<geometry::polygon>(json);
}

template <>
geometry::multi_polygon convert<geometry::multi_polygon>(const rapidjson_value& json) {
    return convertElements<geometry::multi_polygon>(json);
}

template <>
geometry::geometry convert<geometry::geometry>(const rapidjson_value& json) {
    return convertGeometry(json, 0);
}

template <>
feature::identifier convert<feature::identifier>(const rapidjson_value& json) {
    if (json.IsUint64()) {
        return json.GetUint64();
    }
    if (json.IsInt64()) {
        return json.GetInt64();
    }
    if (json.IsNumber()) {
        return json.GetDouble();
    }
    if (json.IsString()) {
        return std::string(stringOf(json));
    }
    fail("Feature id must be a string or number");
}

template <>
feature::value convert<feature::value>(const rapidjson_value& json) {
    return common::json::toValue(json);
}

template <>
feature::feature convert<feature::feature>(const rapidjson_value& json) {
    if (!json.IsObject()) {
        fail("Feature must be an object");
    }
    const rapidjson_value* type = member(json, "type");
    if (type == nullptr) {
        fail("Feature must have a type property");
    }
    if (!type->IsString() || stringOf(*type) != "Feature") {
        fail("Feature type must be Feature");
    }
    const rapidjson_value* shape = member(json, "geometry");
    if (shape == nullptr) {
        fail("Feature must have a geometry property");
    }

    feature::feature result;
    result.geometry = convert<geometry::geometry>(*shape);
    if (const rapidjson_value* id = member(json, "id")) {
        result.id = convert<feature::identifier>(*id);
    }
    if (const rapidjson_value* properties = member(json, "properties")) {
        if (!properties->IsObject()) {
            fail("properties must be an object");
        }
        result.properties =
            std::move(common::json::toValue(*properties).get<feature::property_map>());
    }
    return result;
}

template <>
feature::feature_collection convert<feature::feature_collection>(const rapidjson_value& json) {
    if (!json.IsObject()) {
        fail("GeoJSON must be an object");
    }
    const rapidjson_value* features = member(json, "features");
    if (features == nullptr) {
        fail("FeatureCollection must have features property");
    }
    if (!features->IsArray()) {
        fail("FeatureCollection features property must be an array");
    }
    feature::feature_collection collection;
    collection.reserve(features->Size());
    for (const auto& element : features->GetArray()) {
        collection.push_back(convert<feature::feature>(element));
    }
    return collection;
}

template <>
geojson convert<geojson>(const rapidjson_value& json) {
    if (!json.IsObject()) {
        fail("GeoJSON must be an object");
    }
    const rapidjson_value* type = member(json, "type");
    if (type == nullptr) {
        fail("GeoJSON must have a type property");
    }
    if (type->IsString() && stringOf(*type) == "FeatureCollection") {
        return convert<feature::feature_collection>(json);
    }
    if (type->IsString() && stringOf(*type) == "Feature") {
        return convert<feature::feature>(json);
    }
    return convert<geometry::geometry>(json);
}

geojson convert(const rapidjson_value& json) {
    return convert<geojson>(json);
}

void validatePolygon(const rapidjson_value& coordinates) {
    if (!coordinates.IsArray()) {
        fail("Coordinates must be nested more deeply.");
    }
    for (const auto& ring : coordinates.GetArray()) {
        if (!ring.IsArray()) {
            fail("Coordinates must be an array of arrays, each describing a polygon.");
        }
        if (ring.Size() < 4) {
            fail(
                "Polygon must be described by 4 or more coordinate points. Improper nesting can "
                "also lead to this error. Double check that the coordinates are properly nested "
                "and there are 4 or more coordinates.");
        }
    }
}

rapidjson_value convert(const geometry::geometry& root, rapidjson_allocator& allocator) {
    if (!root.is<geometry::geometry_collection>()) {
        return writeFlat(root, allocator);
    }

    // A collection being written: its members so far and the next one to write.
    struct Frame {
        const geometry::geometry_collection* collection;
        std::size_t next;
        rapidjson_value geometries;
    };
    std::vector<Frame> stack;
    stack.push_back(
        {&root.get<geometry::geometry_collection>(), 0, rapidjson_value(rapidjson::kArrayType)});
    for (;;) {
        Frame& top = stack.back();
        if (top.next < top.collection->size()) {
            const geometry::geometry& child = (*top.collection)[top.next++];
            if (const auto* nested = child.get_if<geometry::geometry_collection>()) {
                // Invalidates top; the loop takes it afresh.
                stack.push_back({nested, 0, rapidjson_value(rapidjson::kArrayType)});
            } else {
                top.geometries.PushBack(writeFlat(child, allocator), allocator);
            }
            continue;
        }
        rapidjson_value finished = collectionOf(std::move(top.geometries), allocator);
        stack.pop_back();
        if (stack.empty()) {
            return finished;
        }
        stack.back().geometries.PushBack(finished, allocator);
    }
}

}  // namespace terrane::geojson
