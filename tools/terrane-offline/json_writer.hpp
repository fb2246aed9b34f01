#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace terrane::tool {

// A small pretty-printing JSON writer that keeps members in the order they are written, for the
// catalogue files that `publish` makes and for `--json` output (the library's value converter
// writes compact JSON in hash order, which is right for machines but not for people).
//
// Usage is checked only loosely: a member value must follow key(), containers must be closed in
// order. One thread at a time.
class JsonWriter {
  public:
    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    JsonWriter& key(std::string_view name);
    JsonWriter& value(std::string_view text);
    JsonWriter& value(const char* text) { return value(std::string_view(text)); }
    JsonWriter& value(const std::string& text) { return value(std::string_view(text)); }
    JsonWriter& value(std::uint64_t number);
    JsonWriter& value(std::int64_t number);
    JsonWriter& value(std::uint32_t number) { return value(std::uint64_t{number}); }
    JsonWriter& value(bool flag);
    JsonWriter& null();
    // A value that is already JSON text, inserted as it is.
    JsonWriter& raw(std::string_view json);

    // The document so far, with a final newline once the outermost container is closed.
    const std::string& text() const { return out_; }

    // `text` as a quoted JSON string.
    static std::string quote(std::string_view text);

  private:
    void beforeValue();
    void newline();

    std::string out_;
    // One entry per open container: whether it has a member or element yet.
    std::vector<bool> hasContent_;
    bool afterKey_ = false;
};

}  // namespace terrane::tool
