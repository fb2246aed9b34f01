#include "json_writer.hpp"

#include <array>
#include <cstdio>

namespace terrane::tool {

std::string JsonWriter::quote(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    out.push_back('"');
    for (const char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    std::array<char, 8> escape{};
                    std::snprintf(escape.data(), escape.size(), "\\u%04x",
                                  static_cast<unsigned>(static_cast<unsigned char>(c)));
                    out += escape.data();
                } else {
                    out.push_back(c);
                }
        }
    }
    out.push_back('"');
    return out;
}

void JsonWriter::newline() {
    out_.push_back('\n');
    out_.append(hasContent_.size() * 2, ' ');
}

void JsonWriter::beforeValue() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (!hasContent_.empty()) {
        if (hasContent_.back()) {
            out_.push_back(',');
        }
        hasContent_.back() = true;
        newline();
    }
}

JsonWriter& JsonWriter::beginObject() {
    beforeValue();
    out_.push_back('{');
    hasContent_.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::endObject() {
    const bool hadContent = hasContent_.back();
    hasContent_.pop_back();
    if (hadContent) {
        newline();
    }
    out_.push_back('}');
    if (hasContent_.empty()) {
        out_.push_back('\n');
    }
    return *this;
}

JsonWriter& JsonWriter::beginArray() {
    beforeValue();
    out_.push_back('[');
    hasContent_.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::endArray() {
    const bool hadContent = hasContent_.back();
    hasContent_.pop_back();
    if (hadContent) {
        newline();
    }
    out_.push_back(']');
    if (hasContent_.empty()) {
        out_.push_back('\n');
    }
    return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
    beforeValue();
    out_ += quote(name);
    out_ += ": ";
    afterKey_ = true;
    return *this;
}

JsonWriter& JsonWriter::value(std::string_view text) {
    beforeValue();
    out_ += quote(text);
    return *this;
}

JsonWriter& JsonWriter::value(std::uint64_t number) {
    beforeValue();
    out_ += std::to_string(number);
    return *this;
}

JsonWriter& JsonWriter::value(std::int64_t number) {
    beforeValue();
    out_ += std::to_string(number);
    return *this;
}

JsonWriter& JsonWriter::value(bool flag) {
    beforeValue();
    out_ += flag ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::null() {
    beforeValue();
    out_ += "null";
    return *this;
}

JsonWriter& JsonWriter::raw(std::string_view json) {
    beforeValue();
    out_ += json;
    return *this;
}

}  // namespace terrane::tool
