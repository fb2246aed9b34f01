#include "value/json_writer.hpp"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <vector>

namespace terrane::common::json {

namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

// One open array or object: where the walk over its children stands.
struct Frame {
    const rapidjson::Value* container;
    rapidjson::SizeType next = 0;
};

void writeScalar(const rapidjson::Value& json, Writer& writer) {
    switch (json.GetType()) {
        case rapidjson::kNullType:
            writer.Null();
            break;
        case rapidjson::kFalseType:
            writer.Bool(false);
            break;
        case rapidjson::kTrueType:
            writer.Bool(true);
            break;
        case rapidjson::kNumberType:
            // The same preference order as Value::Accept.
            if (json.IsDouble()) {
                writer.Double(json.GetDouble());
            } else if (json.IsInt()) {
                writer.Int(json.GetInt());
            } else if (json.IsUint()) {
                writer.Uint(json.GetUint());
            } else if (json.IsInt64()) {
                writer.Int64(json.GetInt64());
            } else {
                writer.Uint64(json.GetUint64());
            }
            break;
        case rapidjson::kStringType:
            writer.String(json.GetString(), json.GetStringLength());
            break;
        case rapidjson::kArrayType:
        case rapidjson::kObjectType:
            break;
    }
}

// Writes a scalar, or opens a container and records it on the stack.
void open(const rapidjson::Value& json, Writer& writer, std::vector<Frame>& stack) {
    if (json.IsArray()) {
        writer.StartArray();
        stack.push_back({&json});
    } else if (json.IsObject()) {
        writer.StartObject();
        stack.push_back({&json});
    } else {
        writeScalar(json, writer);
    }
}

}  // namespace

std::string writeCompact(const rapidjson::Value& json) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    std::vector<Frame> stack;
    open(json, writer, stack);
    while (!stack.empty()) {
        Frame& top = stack.back();
        const rapidjson::Value& container = *top.container;
        if (container.IsArray()) {
            if (top.next == container.Size()) {
                writer.EndArray(container.Size());
                stack.pop_back();
            } else {
                // open() may grow the stack and so invalidate top; it is not used afterwards.
                open(container[top.next++], writer, stack);
            }
        } else {
            if (top.next == container.MemberCount()) {
                writer.EndObject(container.MemberCount());
                stack.pop_back();
            } else {
                const auto& member = container.MemberBegin()[top.next++];
                writer.Key(member.name.GetString(), member.name.GetStringLength());
                open(member.value, writer, stack);
            }
        }
    }
    return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace terrane::common::json
