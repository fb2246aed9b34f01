#include "terrane/value/value_converter.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

#include "value/json_reader.hpp"
#include "value/json_value.hpp"

namespace {

using terrane::common::ValueConverter;
using terrane::feature::null_value;
using terrane::feature::value;
using testing::HasSubstr;
using testing::StartsWith;

std::string parseError(const std::string& json) {
    auto result = ValueConverter::fromJson(json);
    EXPECT_FALSE(result.has_value()) << json;
    return result.has_value() ? std::string() : result.error();
}

value parsed(const std::string& json) {
    auto result = ValueConverter::fromJson(json);
    EXPECT_TRUE(result.has_value()) << json << ": " << result.error();
    return result.has_value() ? *result : value();
}

std::string repeat(const std::string& piece, std::size_t times) {
    std::string text;
    text.reserve(piece.size() * times);
    for (std::size_t i = 0; i < times; ++i) {
        text += piece;
    }
    return text;
}

// A value nested this deeply would overflow the stack in its own recursive destructor, so the
// tests take it apart one level at a time.
void dismantle(value& v) {
    for (;;) {
        value inner;
        if (auto* array = v.get_if<value::array_type>(); array && !array->empty()) {
            inner = std::move(array->front());
        } else if (auto* object = v.get_if<value::object_type>(); object && !object->empty()) {
            inner = std::move(object->begin()->second);
        } else {
            return;
        }
        v = std::move(inner);
    }
}

TEST(ValueConverterParseErrors, ReportOffsetAndRapidjsonMessage) {
    EXPECT_EQ(parseError(""), "Parse error at offset 0: The document is empty.");
    EXPECT_EQ(parseError("  \n "), "Parse error at offset 4: The document is empty.");
    EXPECT_EQ(parseError("{\"a\":1} x"),
              "Parse error at offset 8: The document root must not be followed by other values.");
    EXPECT_EQ(parseError("[1,]"), "Parse error at offset 3: Invalid value.");
    EXPECT_EQ(parseError("NaN"), "Parse error at offset 0: Invalid value.");
    EXPECT_EQ(parseError("// comment\n1"), "Parse error at offset 0: Invalid value.");
    EXPECT_EQ(parseError("{1:2}"), "Parse error at offset 1: Missing a name for object member.");
    EXPECT_EQ(parseError("{\"a\" 1}"),
              "Parse error at offset 5: Missing a colon after a name of object member.");
    EXPECT_EQ(parseError("{\"a\":1,}"),
              "Parse error at offset 7: Missing a name for object member.");
    EXPECT_EQ(parseError("{\"a\":1"),
              "Parse error at offset 6: Missing a comma or '}' after an object member.");
    EXPECT_EQ(parseError("[1 2]"),
              "Parse error at offset 3: Missing a comma or ']' after an array element.");
    EXPECT_EQ(parseError("\"\\u12G4\""),
              "Parse error at offset 1: Incorrect hex digit after \\u escape in string.");
    EXPECT_EQ(parseError("\"\\uD800x\""),
              "Parse error at offset 1: The surrogate pair in string is invalid.");
    EXPECT_EQ(parseError("\"\\x\""),
              "Parse error at offset 1: Invalid escape character in string.");
    EXPECT_EQ(parseError("\"abc"),
              "Parse error at offset 4: Missing a closing quotation mark in string.");
    EXPECT_EQ(parseError("1e400"),
              "Parse error at offset 0: Number too big to be stored in double.");
    EXPECT_EQ(parseError("1."), "Parse error at offset 2: Miss fraction part in number.");
    EXPECT_EQ(parseError("1e"), "Parse error at offset 2: Miss exponent in number.");
}

TEST(ValueConverterParseErrors, TextAfterAnEmbeddedNulIsASecondRoot) {
    EXPECT_EQ(parseError(std::string("5\0x", 3)),
              "Parse error at offset 1: The document root must not be followed by other values.");
    EXPECT_EQ(parseError(std::string("[]\0", 3)),
              "Parse error at offset 2: The document root must not be followed by other values.");
}

TEST(ValueConverterParseErrors, CodesOutsideTheTableAreUnknown) {
    using terrane::common::json::parseErrorMessage;
    EXPECT_EQ(parseErrorMessage(0, 3), "Parse error at offset 3: Unknown error.");
    EXPECT_EQ(parseErrorMessage(18, 0), "Parse error at offset 0: Unknown error.");
    EXPECT_EQ(parseErrorMessage(17, 12), "Parse error at offset 12: Unspecific syntax error.");
    EXPECT_EQ(parseErrorMessage(16, 1),
              "Parse error at offset 1: Terminate parsing due to Handler error.");
}

TEST(ValueConverterNumbers, IntegersAreUnsignedUnlessNegativeAndEverythingElseDouble) {
    EXPECT_EQ(parsed("5"), value(std::uint64_t{5}));
    EXPECT_EQ(parsed("-5"), value(std::int64_t{-5}));
    EXPECT_EQ(parsed("5.0"), value(5.0));
    EXPECT_EQ(parsed("0"), value(std::uint64_t{0}));
    EXPECT_EQ(parsed("1e2"), value(100.0));
    EXPECT_EQ(parsed("-1.5"), value(-1.5));
    EXPECT_EQ(parsed("18446744073709551615"), value(std::numeric_limits<std::uint64_t>::max()));
    EXPECT_EQ(parsed("18446744073709551616"), value(18446744073709551616.0));
    EXPECT_EQ(parsed("-9223372036854775808"), value(std::numeric_limits<std::int64_t>::min()));
    EXPECT_EQ(parsed("-9223372036854775809"), value(-9223372036854775809.0));
}

TEST(ValueConverterParse, ScalarsStringsAndContainers) {
    EXPECT_EQ(parsed("null"), value());
    EXPECT_EQ(parsed(" true "), value(true));
    EXPECT_EQ(parsed("false"), value(false));
    EXPECT_EQ(parsed("\"caf\\u00e9 \\\"q\\\"\""), value("caf\xc3\xa9 \"q\""));
    EXPECT_EQ(parsed("\"a\\u0000b\""), value(std::string("a\0b", 3)));
    EXPECT_EQ(parsed("[]"), value(value::array_type{}));
    EXPECT_EQ(parsed("{}"), value(value::object_type{}));
    EXPECT_EQ(
        parsed("[1,-1,\"x\",[null],{\"k\":false}]"),
        value(value::array_type{std::uint64_t{1}, std::int64_t{-1}, "x",
                                value::array_type{null_value}, value::object_type{{"k", false}}}));
}

TEST(ValueConverterParse, RepeatedMemberKeepsTheFirstOccurrence) {
    EXPECT_EQ(parsed("{\"a\":1,\"b\":true,\"a\":2}"),
              value(value::object_type{{"a", std::uint64_t{1}}, {"b", true}}));
    EXPECT_EQ(parsed("{\"a\":{\"x\":1},\"a\":{\"y\":2}}"),
              value(value::object_type{{"a", value::object_type{{"x", std::uint64_t{1}}}}}));
}

TEST(ValueConverterWrite, ScalarsAreCompact) {
    EXPECT_EQ(ValueConverter::toJson(value()), "null");
    EXPECT_EQ(ValueConverter::toJson(value(true)), "true");
    EXPECT_EQ(ValueConverter::toJson(value(false)), "false");
    EXPECT_EQ(ValueConverter::toJson(value(std::numeric_limits<std::uint64_t>::max())),
              "18446744073709551615");
    EXPECT_EQ(ValueConverter::toJson(value(std::numeric_limits<std::int64_t>::min())),
              "-9223372036854775808");
    EXPECT_EQ(ValueConverter::toJson(value(std::int64_t{7})), "7");
    EXPECT_EQ(ValueConverter::toJson(value(1.0)), "1.0");
    EXPECT_EQ(ValueConverter::toJson(value(0.1)), "0.1");
    EXPECT_EQ(ValueConverter::toJson(value(1e30)), "1e30");
    EXPECT_EQ(ValueConverter::toJson(value(-2.5)), "-2.5");
    EXPECT_EQ(ValueConverter::toJson(value(value::array_type{})), "[]");
    EXPECT_EQ(ValueConverter::toJson(value(value::object_type{})), "{}");
    EXPECT_EQ(ValueConverter::toJson(value(value::array_type{std::uint64_t{1}, "a", value()})),
              "[1,\"a\",null]");
}

TEST(ValueConverterWrite, StringsEscapeQuotesBackslashesAndControlCharacters) {
    EXPECT_EQ(ValueConverter::toJson(value("say \"hi\"\\")), R"("say \"hi\"\\")");
    EXPECT_EQ(ValueConverter::toJson(value("\n\t\r\b\f\x01\x1f")), R"("\n\t\r\b\f\u0001\u001F")");
    EXPECT_EQ(ValueConverter::toJson(value(std::string("a\0b", 3))), R"("a\u0000b")");
    EXPECT_EQ(ValueConverter::toJson(value("caf\xc3\xa9 / \x7f")), "\"caf\xc3\xa9 / \x7f\"");
    EXPECT_EQ(ValueConverter::toJson(value(value::object_type{{"q\"", "v"}})), R"({"q\"":"v"})");
}

TEST(ValueConverterWrite, NonFiniteDoublesWriteNothing) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(ValueConverter::toJson(value(nan)), "");
    EXPECT_EQ(ValueConverter::toJson(value(-inf)), "");
    EXPECT_EQ(ValueConverter::toJson(value(value::array_type{std::uint64_t{1}, nan, 2.5})),
              "[1,,2.5]");
    EXPECT_EQ(ValueConverter::toJson(value(value::object_type{{"a", inf}})), "{\"a\":}");
}

TEST(ValueConverterRoundTrip, ObjectsSurviveWhateverTheMemberOrder) {
    const value original(value::object_type{
        {"name", "Gr\xc3\xbcnwald\t\"north\""},
        {"count", std::uint64_t{42}},
        {"offset", std::int64_t{-3}},
        {"ratio", 0.25},
        {"whole", 3.0},
        {"flag", true},
        {"nothing", value()},
        {"list", value::array_type{std::uint64_t{1}, value::array_type{}, value::object_type{}}},
        {"nested", value::object_type{{"deep", value::object_type{{"x", -1e-7}}}}},
    });
    const std::string text = ValueConverter::toJson(original);
    EXPECT_EQ(text.find(' '), std::string::npos);
    EXPECT_EQ(parsed(text), original);

    const std::string input = R"({"z":1,"y":[true,null,"s"],"x":{"w":-2,"v":2.5}})";
    EXPECT_EQ(parsed(ValueConverter::toJson(parsed(input))), parsed(input));
}

TEST(ValueConverterDepth, AcceptsUpToTheLimitAndRejectsTheLevelBeyond) {
    const std::size_t limit = ValueConverter::maxNestingDepth;
    const std::string deepest = repeat("[", limit) + repeat("]", limit);
    value v = parsed(deepest);
    EXPECT_EQ(ValueConverter::toJson(v), deepest);

    EXPECT_EQ(parseError(repeat("[", limit + 1) + repeat("]", limit + 1)),
              "Parse error at offset 512: The document is nested more deeply than 512 levels.");
    EXPECT_EQ(parseError("{\"a\":" + repeat("[", limit) + "]"),
              "Parse error at offset 516: The document is nested more deeply than 512 levels.");
}

TEST(ValueConverterDepth, HundredThousandLevelsFailCleanly) {
    const std::size_t levels = 100000;
    EXPECT_EQ(parseError(repeat("[", levels) + repeat("]", levels)),
              "Parse error at offset 512: The document is nested more deeply than 512 levels.");
    EXPECT_EQ(parseError(repeat("{\"a\":", levels) + "1" + repeat("}", levels)),
              "Parse error at offset 2560: The document is nested more deeply than 512 levels.");
    // Unbalanced and truncated: the depth bound still trips first.
    EXPECT_THAT(parseError(repeat("[{\"k\":", levels)), HasSubstr("nested more deeply"));
}

TEST(ValueConverterDepth, WritesAValueOfAnyDepthBuiltInCode) {
    const std::size_t levels = 100000;
    value arrays = value::array_type{};
    value objects = value::object_type{};
    for (std::size_t i = 1; i < levels; ++i) {
        // Initializer lists copy, and a deep copy recurses: move each level in by hand.
        value::array_type array;
        array.push_back(std::move(arrays));
        arrays = std::move(array);
        value::object_type object;
        object.emplace("a", std::move(objects));
        objects = std::move(object);
    }
    EXPECT_EQ(ValueConverter::toJson(arrays), repeat("[", levels) + repeat("]", levels));
    EXPECT_EQ(ValueConverter::toJson(objects),
              repeat("{\"a\":", levels - 1) + "{}" + repeat("}", levels - 1));
    dismantle(arrays);
    dismantle(objects);
}

TEST(ValueConverterDepth, HandBuiltDomBeyondTheLimitIsRefusedNotRecursed) {
    rapidjson::Document document;
    rapidjson::Value* innermost = &document.SetArray();
    for (std::size_t i = 0; i < 100000; ++i) {
        innermost->PushBack(rapidjson::Value(rapidjson::kArrayType), document.GetAllocator());
        innermost = &(*innermost)[0];
    }
    EXPECT_THROW(terrane::common::json::toValue(document), std::runtime_error);
}

TEST(ValueConverterRobustness, MalformedInputNeverCrashes) {
    const std::string sample =
        R"({"a":[1,-2,3.5e-3,"x\u00e9\n",true,false,null],"b":{"c":[[]],"d":"\ud83d\ude00"}})";
    ASSERT_TRUE(ValueConverter::fromJson(sample).has_value());
    auto check = [](const std::string& input) {
        auto result = ValueConverter::fromJson(input);
        if (!result) {
            EXPECT_THAT(result.error(), StartsWith("Parse error at offset ")) << input;
        } else {
            // Doubles need not survive exactly (no full-precision parsing), so only the
            // writer's willingness is checked here.
            EXPECT_FALSE(ValueConverter::toJson(*result).empty()) << input;
        }
    };
    for (std::size_t length = 0; length < sample.size(); ++length) {
        check(sample.substr(0, length));
    }

    std::mt19937 random(20240611);
    const std::string alphabet = "[]{}\":,0123456789-+.eE\\u tfnrlaxsD\x00\x80\xff";
    for (int round = 0; round < 3000; ++round) {
        std::string mutated = sample;
        const int edits = 1 + static_cast<int>(random() % 4);
        for (int e = 0; e < edits; ++e) {
            mutated[random() % mutated.size()] = alphabet[random() % alphabet.size()];
        }
        check(mutated);
        std::string noise(random() % 40, ' ');
        for (char& c : noise) {
            c = alphabet[random() % alphabet.size()];
        }
        check(noise);
    }
}

}  // namespace
