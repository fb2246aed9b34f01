#pragma once

#include <utility>
#include <vector>

#include "terrane/util/variant.hpp"

namespace terrane::geometry {

// Geometries with double coordinates; x is the longitude, y the latitude. The container types
// are distinct classes (not aliases) so that a variant can tell a line string from a
// multi-point.

struct empty {
    friend bool operator==(const empty&, const empty&) { return true; }
};

struct point {
    double x = 0;
    double y = 0;

    point() = default;
    point(double x_, double y_) : x(x_), y(y_) {}

    friend bool operator==(const point&, const point&) = default;
};

template <typename T>
struct point_container : std::vector<T> {
    using std::vector<T>::vector;
    point_container() = default;
    point_container(std::vector<T> elements) : std::vector<T>(std::move(elements)) {}
};

struct line_string : point_container<point> {
    using point_container::point_container;
};
struct multi_point : point_container<point> {
    using point_container::point_container;
};
struct linear_ring : point_container<point> {
    using point_container::point_container;
};
struct polygon : point_container<linear_ring> {
    using point_container::point_container;
};
struct multi_line_string : point_container<line_string> {
    using point_container::point_container;
};
struct multi_polygon : point_container<polygon> {
    using point_container::point_container;
};

struct geometry;

struct geometry_collection : std::vector<geometry> {
    using std::vector<geometry>::vector;
};

using geometry_base = util::variant<empty, point, line_string, polygon, multi_point,
                                    multi_line_string, multi_polygon, geometry_collection>;

// The alternatives in this order: empty (no geometry), point, line_string, polygon, multi_point,
// multi_line_string, multi_polygon, geometry_collection.
struct geometry : geometry_base {
    using geometry_base::geometry_base;
    geometry() = default;

    friend bool operator==(const geometry& a, const geometry& b) { return a.base() == b.base(); }
};

}  // namespace terrane::geometry
