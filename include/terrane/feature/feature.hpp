#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "terrane/feature/value.hpp"
#include "terrane/geometry/geometry.hpp"

namespace terrane::feature {

// A feature's identifier: null, unsigned, signed, double or string, in that order.
using identifier = util::variant<null_value_t, std::uint64_t, std::int64_t, double, std::string>;

struct feature {
    geometry::geometry geometry;
    property_map properties;
    std::optional<identifier> id;

    friend bool operator==(const feature&, const feature&) = default;
};

struct feature_collection : std::vector<feature> {
    using std::vector<feature>::vector;
};

}  // namespace terrane::feature
