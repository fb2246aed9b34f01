#pragma once

#include <rapidjson/document.h>

#include "terrane/feature/feature.hpp"
#include "terrane/feature/value.hpp"
#include "terrane/geojson/geojson.hpp"
#include "terrane/geometry/geometry.hpp"

// Conversion between rapidjson DOM values and the geometry and feature types. Every reader
// throws std::runtime_error at the first violation, with a message meant for the user; nothing
// partial is returned. All functions are pure: any thread may call them; the DOM belongs to the
// caller, the results to the caller.

namespace terrane::geojson {

using rapidjson_value = rapidjson::Value;
using rapidjson_allocator = rapidjson::Document::AllocatorType;

// The entry point for a whole document: "FeatureCollection", "Feature" or a geometry.
geojson convert(const rapidjson_value& json);

// Reads one part of a document. The geometry containers read their "coordinates" arrays:
// point a position, multi_point/line_string/linear_ring arrays of positions, polygon an array
// of rings, multi_line_string an array of line strings, multi_polygon an array of polygons.
// These only check shapes; the minimum sizes belong to the geometry reader, which checks them
// against the type name. geometry reads a geometry object (GeometryCollection included),
// feature a Feature object, feature_collection a FeatureCollection object, identifier the value
// of a Feature's "id", value any JSON (as properties are read).
template <typename T>
T convert(const rapidjson_value& json);

template <>
geometry::point convert<geometry::point>(const rapidjson_value& json);
template <>
geometry::multi_point convert<geometry::multi_point>(const rapidjson_value& json);
template <>
geometry::line_string convert<geometry::line_string>(const rapidjson_value& json);
template <>
geometry::linear_ring convert<geometry::linear_ring>(const rapidjson_value& json);
template <>
geometry::multi_line_string convert<geometry::multi_line_string>(const rapidjson_value& json);
template <>
geometry::polygon convert<geometry::polygon>(const rapidjson_value& json);
template <>
geometry::multi_polygon convert<geometry::multi_polygon>(const rapidjson_value& json);
template <>
geometry::geometry convert<geometry::geometry>(const rapidjson_value& json);
template <>
feature::identifier convert<feature::identifier>(const rapidjson_value& json);
template <>
feature::value convert<feature::value>(const rapidjson_value& json);
template <>
feature::feature convert<feature::feature>(const rapidjson_value& json);
template <>
feature::feature_collection convert<feature::feature_collection>(const rapidjson_value& json);
template <>
geojson convert<geojson>(const rapidjson_value& json);

// Checks the "coordinates" of a Polygon (or one element of a MultiPolygon's): an array of
// arrays of 4 or more entries each. Rings are not checked for closure.
void validatePolygon(const rapidjson_value& coordinates);

// Writes a geometry as a GeoJSON geometry object whose strings and arrays live in allocator.
// The empty geometry becomes an empty GeometryCollection. Collections of any depth are written
// without recursion.
rapidjson_value convert(const geometry::geometry& geometry, rapidjson_allocator& allocator);

}  // namespace terrane::geojson
