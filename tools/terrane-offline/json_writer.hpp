#pragma once

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace terrane::tool {

// RapidJSON's pretty writer with chained calls, for the catalogue files that `publish` makes and
// for `--json` output: members stay in the order they are written and the text is indented for
// people (the library's value converter writes compact JSON in hash order).
//
// RapidJSON checks the nesting (a member value must follow key()). One thread at a time.
class JsonWriter {
  public:
    JsonWriter() : writer_(buffer_) { writer_.SetIndent(' ', 2); }

    JsonWriter& beginObject() { return done(writer_.StartObject()); }
    JsonWriter& endObject() { return done(writer_.EndObject()); }
    JsonWriter& beginArray() { return done(writer_.StartArray()); }
    JsonWriter& endArray() { return done(writer_.EndArray()); }
    JsonWriter& key(std::string_view name) {
        return done(writer_.Key(name.data(), static_cast<rapidjson::SizeType>(name.size())));
    }
    JsonWriter& value(std::string_view text) {
        return done(writer_.String(text.data(), static_cast<rapidjson::SizeType>(text.size())));
    }
    JsonWriter& value(const char* text) { return value(std::string_view(text)); }
    JsonWriter& value(const std::string& text) { return value(std::string_view(text)); }
    JsonWriter& value(std::uint64_t number) { return done(writer_.Uint64(number)); }
    JsonWriter& value(std::int64_t number) { return done(writer_.Int64(number)); }
    JsonWriter& value(std::uint32_t number) { return done(writer_.Uint(number)); }
    JsonWriter& value(bool flag) { return done(writer_.Bool(flag)); }
    JsonWriter& null() { return done(writer_.Null()); }
    // A value that is already JSON text (an object), inserted as it is.
    JsonWriter& raw(std::string_view json) {
        return done(writer_.RawValue(json.data(), json.size(), rapidjson::kObjectType));
    }

    // The document so far, with a final newline once the outermost container is closed.
    std::string text() const {
        std::string out(buffer_.GetString(), buffer_.GetSize());
        if (writer_.IsComplete()) {
            out.push_back('\n');
        }
        return out;
    }

  private:
    JsonWriter& done(bool) { return *this; }

    rapidjson::StringBuffer buffer_;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer_;
};

}  // namespace terrane::tool
