#include "value/json_value.hpp"

#include <cstddef>
#include <stdexcept>
#include <string>

#include "terrane/value/value_converter.hpp"

namespace terrane::common::json {

namespace {

feature::value convert(const rapidjson::Value& json, std::size_t depth) {
    switch (json.GetType()) {
        case rapidjson::kNullType:
            return feature::null_value;
        case rapidjson::kFalseType:
            return false;
        case rapidjson::kTrueType:
            return true;
        case rapidjson::kNumberType:
            if (json.IsUint64()) {
                return json.GetUint64();
            }
            if (json.IsInt64()) {
                return json.GetInt64();
            }
            return json.GetDouble();
        case rapidjson::kStringType:
            return std::string(json.GetString(), json.GetStringLength());
        case rapidjson::kArrayType:
        case rapidjson::kObjectType:
            break;
    }

    if (depth == ValueConverter::maxNestingDepth) {
        throw std::runtime_error("JSON value is nested more deeply than " +
                                 std::to_string(ValueConverter::maxNestingDepth) + " levels");
    }
    if (json.IsArray()) {
        feature::value::array_type array;
        array.reserve(json.Size());
        for (const auto& element : json.GetArray()) {
            array.push_back(convert(element, depth + 1));
        }
        return array;
    }
    feature::value::object_type object;
    object.reserve(json.MemberCount());
    for (const auto& member : json.GetObject()) {
        // try_emplace leaves an existing entry alone: a repeated name keeps its first value.
        auto [entry, inserted] =
            object.try_emplace(std::string(member.name.GetString(), member.name.GetStringLength()));
        if (inserted) {
            entry->second = convert(member.value, depth + 1);
        }
    }
    return object;
}

}  // namespace

feature::value toValue(const rapidjson::Value& json) {
    return convert(json, 0);
}

}  // namespace terrane::common::json
