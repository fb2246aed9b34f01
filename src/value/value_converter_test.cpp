#include "terrane/value/value_converter.hpp"

#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "value/json_reader.hpp"
#include "value/json_value.hpp"
#include "value/json_writer.hpp"

namespace {

using terrane::common::unexpected;
using terrane::common::ValueConverter;
using terrane::common::json::writeCompact;
using namespace terrane::feature;

TEST(ValueConverterParse, ErrorsGiveTheOffsetAndTheParsersMessageAndLeaveNoDocument) {
    const std::size_t limit = ValueConverter::maxNestingDepth;
    const std::string tooDeep = "The document is nested more deeply than 512 levels.";
    const std::vector<std::pair<std::string, std::string>> rows{
        {"", "0: The document is empty."},
        {"{\"a\":1} x", "8: The document root must not be followed by other values."},
        // Text after an embedded NUL is a second root.
        {std::string("5\0x", 3), "1: The document root must not be followed by other values."},
        {"[1 2]", "3: Missing a comma or ']' after an array element."},
        {std::string(100000, '[') + std::string(100000, ']'), "512: " + tooDeep},
    };
    for (const auto& [text, message] : rows) {
        rapidjson::Document document;
        EXPECT_EQ(terrane::common::json::parseDocument(text, document),
                  unexpected("Parse error at offset " + message))
            << text.substr(0, 40);
        EXPECT_TRUE(document.IsNull()) << text.substr(0, 40);
    }
    // One level less is the deepest value accepted, and it writes back.
    const std::string deepest = std::string(limit, '[') + std::string(limit, ']');
    EXPECT_EQ(ValueConverter::toJson(ValueConverter::fromJson(deepest).value()), deepest);
    EXPECT_EQ(
        ValueConverter::fromJson("[1 2]"),
        unexpected("Parse error at offset 3: Missing a comma or ']' after an array element."));
}

// Each row's text reads as its value, its value writes as its text, or both; each value read also
// reads back from what it writes, whatever the order of its members.
TEST(ValueConverter, ReadsAndWritesEachKindCompactAndEscaped) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    enum Way { Both, Reads, Writes };
    const std::vector<std::tuple<std::string, value, Way>> rows{
        {"5", std::uint64_t{5}, Both},
        {"-5", std::int64_t{-5}, Both},
        {"5.0", 5.0, Both},
        {"18446744073709551615", std::numeric_limits<std::uint64_t>::max(), Both},
        {"18446744073709551616", 18446744073709551616.0, Reads},
        {"-9223372036854775808", std::numeric_limits<std::int64_t>::min(), Both},
        {"{}", value::object_type{}, Both},
        {R"("a\u0000b")", std::string("a\0b", 3), Both},
        {R"("\n\t\r\b\f\u0001\u001F")", "\n\t\r\b\f\x01\x1f", Both},
        {R"({"q\"":"v"})", value::object_type{{"q\"", "v"}}, Both},
        {"[1,-1,\"x\",[null],{\"k\":false}]",
         value::array_type{std::uint64_t{1}, std::int64_t{-1}, "x", value::array_type{null_value},
                           value::object_type{{"k", false}}},
         Both},
        // A repeated member keeps its first occurrence.
        {"{\"a\":{\"x\":1},\"b\":true,\"a\":{\"y\":2}}",
         value::object_type{{"a", value::object_type{{"x", std::uint64_t{1}}}}, {"b", true}},
         Reads},
        // A non-finite double writes nothing at all.
        {"", nan, Writes},
        {"[1,,2.5,null]", value::array_type{std::uint64_t{1}, nan, 2.5, value()}, Writes},
        {"{\"a\":}", value::object_type{{"a", -inf}}, Writes},
    };
    for (const auto& [text, expected, way] : rows) {
        if (way != Writes) {
            EXPECT_EQ(ValueConverter::fromJson(text), expected) << text;
            EXPECT_EQ(ValueConverter::fromJson(ValueConverter::toJson(expected)), expected) << text;
        }
        if (way != Reads) {
            EXPECT_EQ(ValueConverter::toJson(expected), text) << text;
        }
    }
}

TEST(JsonWriter, MatchesRapidjsonsOwnWriterAtShallowDepth) {
    const char* text =
        R"({"a":[1,-2,4294967296,-4294967296,18446744073709551615,1.0,1e30,"q\"\n"],)"
        R"("b":{},"c":[],"d":null,"e":[true,false,{"f":[[0.1]]}],"a":2})";
    rapidjson::Document document;
    document.Parse(text);
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    document.Accept(writer);
    EXPECT_EQ(writeCompact(document), buffer.GetString());
}

// A DOM built in code escapes the parser's bound: it is written without recursion, and refused
// rather than recursed into when read as a value.
TEST(JsonWriter, WritesAHundredThousandLevelsThatAValueRefuses) {
    const std::size_t levels = 100000;
    rapidjson::Document document;
    rapidjson::Value* innermost = &document.SetObject();
    for (std::size_t i = 1; i < levels; ++i) {
        innermost->AddMember("k", rapidjson::Value(rapidjson::kArrayType), document.GetAllocator());
        innermost = &(*innermost)["k"];
        innermost->PushBack(rapidjson::Value(rapidjson::kObjectType), document.GetAllocator());
        innermost = &(*innermost)[0u];
    }
    const std::string written = writeCompact(document);
    EXPECT_EQ(written.size(), (levels - 1) * 8 + 2);
    EXPECT_EQ(written.find("{}"), written.size() - 2 * levels);
    EXPECT_THROW(terrane::common::json::toValue(document), std::runtime_error);
}

}  // namespace
