#include "value/json_reader.hpp"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <cstdint>

#include "terrane/value/value_converter.hpp"

namespace terrane::common::json {

namespace {

constexpr std::size_t maxDepth = ValueConverter::maxNestingDepth;

// Stands between rapidjson's reader and the document and stops the parse at the first array or
// object that would go deeper than maxDepth. Every other event passes through unchanged, so
// rapidjson keeps its own error codes and offsets for all other faults.
template <typename Next>
class DepthLimiter {
  public:
    explicit DepthLimiter(Next& next) : next_(next) {}

    bool Null() { return next_.Null(); }
    bool Bool(bool b) { return next_.Bool(b); }
    bool Int(int i) { return next_.Int(i); }
    bool Uint(unsigned u) { return next_.Uint(u); }
    bool Int64(std::int64_t i) { return next_.Int64(i); }
    bool Uint64(std::uint64_t u) { return next_.Uint64(u); }
    bool Double(double d) { return next_.Double(d); }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool copy) {
        return next_.RawNumber(text, length, copy);
    }
    bool String(const char* text, rapidjson::SizeType length, bool copy) {
        return next_.String(text, length, copy);
    }
    bool Key(const char* text, rapidjson::SizeType length, bool copy) {
        return next_.Key(text, length, copy);
    }
    bool StartObject() { return enter() && next_.StartObject(); }
    bool EndObject(rapidjson::SizeType members) {
        --depth_;
        return next_.EndObject(members);
    }
    bool StartArray() { return enter() && next_.StartArray(); }
    bool EndArray(rapidjson::SizeType elements) {
        --depth_;
        return next_.EndArray(elements);
    }

    bool tooDeep() const { return tooDeep_; }

  private:
    bool enter() {
        if (depth_ == maxDepth) {
            tooDeep_ = true;
            return false;
        }
        ++depth_;
        return true;
    }

    Next& next_;
    std::size_t depth_ = 0;
    bool tooDeep_ = false;
};

}  // namespace

std::string parseErrorMessage(unsigned code, std::size_t offset) {
    const char* message = "Unknown error.";
    if (code >= rapidjson::kParseErrorDocumentEmpty &&
        code <= rapidjson::kParseErrorUnspecificSyntaxError) {
        message = rapidjson::GetParseError_En(static_cast<rapidjson::ParseErrorCode>(code));
    }
    return "Parse error at offset " + std::to_string(offset) + ": " + message;
}

expected<void, std::string> parseDocument(std::string_view text, rapidjson::Document& document) {
    document.SetNull();
    // Reads the bytes where they lie, so a large body is not copied just to gain a terminating
    // NUL; the stream answers NUL at the end and at an embedded NUL alike, and counts offsets
    // as the document's own Parse(std::string) does.
    rapidjson::MemoryStream stream(text.data(), text.size());
    rapidjson::ParseResult result;
    bool tooDeep = false;
    auto generate = [&](rapidjson::Document& handler) {
        DepthLimiter<rapidjson::Document> limiter(handler);
        rapidjson::Reader reader;
        result = reader.Parse<rapidjson::kParseDefaultFlags>(stream, limiter);
        tooDeep = limiter.tooDeep();
        return !result.IsError();
    };
    document.Populate(generate);

    if (tooDeep) {
        document.SetNull();
        // rapidjson reports the offset just after the bracket it had already consumed; the
        // bracket itself is the more useful place to point at.
        return unexpected("Parse error at offset " + std::to_string(result.Offset() - 1) +
                          ": The document is nested more deeply than " + std::to_string(maxDepth) +
                          " levels.");
    }
    if (result.IsError()) {
        document.SetNull();
        return unexpected(parseErrorMessage(result.Code(), result.Offset()));
    }
    if (stream.Tell() != text.size()) {
        document.SetNull();
        return unexpected(
            parseErrorMessage(rapidjson::kParseErrorDocumentRootNotSingular, stream.Tell()));
    }
    return {};
}

}  // namespace terrane::common::json
