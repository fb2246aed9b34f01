#include "terrane/value/value_converter.hpp"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <type_traits>
#include <vector>

#include "value/json_reader.hpp"
#include "value/json_value.hpp"

namespace terrane::common {

namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;
using feature::value;

// One open array or object: where the walk over its children stands. Only one of array and
// object is set.
struct Frame {
    const value::array_type* array = nullptr;
    std::size_t next = 0;
    const value::object_type* object = nullptr;
    value::object_type::const_iterator member;
};

// Writes a scalar, or opens a container and records it on the stack. The walk is iterative
// because a value built in code can be nested arbitrarily deeply.
void open(const value& v, Writer& writer, std::vector<Frame>& stack) {
    v.visit([&](const auto& alternative) {
        using T = std::decay_t<decltype(alternative)>;
        if constexpr (std::is_same_v<T, feature::null_value_t>) {
            writer.Null();
        } else if constexpr (std::is_same_v<T, bool>) {
            writer.Bool(alternative);
        } else if constexpr (std::is_same_v<T, std::uint64_t>) {
            writer.Uint64(alternative);
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
            writer.Int64(alternative);
        } else if constexpr (std::is_same_v<T, double>) {
            // Writes nothing for NaN and infinities: rapidjson refuses them in strict JSON.
            writer.Double(alternative);
        } else if constexpr (std::is_same_v<T, std::string>) {
            writer.String(alternative.data(), static_cast<rapidjson::SizeType>(alternative.size()));
        } else if constexpr (std::is_same_v<T, value::array_type>) {
            writer.StartArray();
            stack.push_back({&alternative, 0, nullptr, {}});
        } else {
            static_assert(std::is_same_v<T, value::object_type>);
            writer.StartObject();
            stack.push_back({nullptr, 0, &alternative, alternative.begin()});
        }
    });
}

}  // namespace

expected<feature::value, std::string> ValueConverter::fromJson(const std::string& json) {
    rapidjson::Document document;
    if (auto parsed = json::parseDocument(json, document); !parsed) {
        return unexpected(std::move(parsed.error()));
    }
    // parseDocument bounds the depth, so toValue's own depth check cannot fire here.
    return json::toValue(document);
}

std::string ValueConverter::toJson(const feature::value& value) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    std::vector<Frame> stack;
    open(value, writer, stack);
    while (!stack.empty()) {
        // open() may grow the stack and so invalidate top; it is not used after open().
        Frame& top = stack.back();
        if (top.array != nullptr) {
            if (top.next == top.array->size()) {
                writer.EndArray();
                stack.pop_back();
            } else {
                open((*top.array)[top.next++], writer, stack);
            }
        } else if (top.member == top.object->end()) {
            writer.EndObject();
            stack.pop_back();
        } else {
            const auto& [name, member] = *top.member++;
            writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
            open(member, writer, stack);
        }
    }
    return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace terrane::common
