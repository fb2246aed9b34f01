#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "terrane/util/variant.hpp"

namespace terrane::feature {

struct null_value_t {
    friend bool operator==(const null_value_t&, const null_value_t&) { return true; }
};

inline constexpr null_value_t null_value{};

struct value;

using value_base = util::variant<null_value_t, bool, std::uint64_t, std::int64_t, double,
                                 std::string, util::recursive_wrapper<std::vector<value>>,
                                 util::recursive_wrapper<std::unordered_map<std::string, value>>>;

// A dynamically typed value: null, bool, unsigned and signed 64-bit integers, double, string,
// array and string-keyed object, in that order. A default-constructed value is null.
struct value : value_base {
    using array_type = std::vector<value>;
    using object_type = std::unordered_map<std::string, value>;

    using value_base::value_base;
    value() : value_base(null_value) {}
    value(const char* text) : value_base(std::string(text)) {}
    value(array_type array) : value_base(util::recursive_wrapper<array_type>(std::move(array))) {}
    value(object_type object)
        : value_base(util::recursive_wrapper<object_type>(std::move(object))) {}

    friend bool operator==(const value& a, const value& b) { return a.base() == b.base(); }
};

using property_map = value::object_type;

}  // namespace terrane::feature
