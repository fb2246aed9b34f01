#pragma once

#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/feature/feature.hpp"
#include "terrane/geometry/geometry.hpp"
#include "terrane/util/variant.hpp"

namespace terrane::geojson {

// What a GeoJSON document holds: a bare geometry, one feature, or a feature collection.
using geojson = util::variant<geometry::geometry, feature::feature, feature::feature_collection>;

// Reads GeoJSON text. Malformed JSON fails with "Parse error at offset N: <reason>" (see
// terrane::common::ValueConverter::fromJson, including its nesting bound); well-formed JSON that
// is not acceptable GeoJSON fails with the reason, for example "GeoJSON must have a type
// property" or "A line string must have two or more coordinate points.". Never throws for bad
// input.
//
// Strictness worth knowing: a Feature's "geometry" must be a geometry object (null is refused),
// "properties", when present, must be an object, an "id" must be a number or a string, and
// positions keep only their first two numbers.
//
// A pure function: any thread may call it; the result belongs to the caller.
TERRANE_EXPORT common::expected<geojson, std::string> parse(const std::string& text);

// Writes a geometry as a compact GeoJSON geometry object: {"type":...,"coordinates":...} with
// each position as [x,y], or {"type":"GeometryCollection","geometries":[...]}. The empty
// geometry, which GeoJSON cannot express, is written as an empty GeometryCollection, the
// nearest thing that other readers accept. Non-finite coordinates are written as nothing (see
// ValueConverter::toJson), which no reader accepts. Geometry collections of any depth are
// written without recursion.
//
// A pure function: any thread may call it.
TERRANE_EXPORT std::string stringify(const geometry::geometry& geometry);

}  // namespace terrane::geojson
