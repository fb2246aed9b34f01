#include "value/json_writer.hpp"

#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <limits>
#include <string>

namespace {

using terrane::common::json::writeCompact;

std::string viaAccept(const rapidjson::Value& json) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    json.Accept(writer);
    return buffer.GetString();
}

TEST(JsonWriter, MatchesRapidjsonsOwnWriterAtShallowDepth) {
    const char* text =
        R"({"a":[1,-2,4294967296,-4294967296,18446744073709551615,1.0,1e30,"q\"\n"],)"
        R"("b":{},"c":[],"d":null,"e":[true,false,{"f":[[0.1]]}],"a":2})";
    rapidjson::Document document;
    document.Parse(text);
    ASSERT_FALSE(document.HasParseError());
    EXPECT_EQ(writeCompact(document), viaAccept(document));
    EXPECT_EQ(writeCompact(rapidjson::Value(std::numeric_limits<double>::quiet_NaN())), "");
}

TEST(JsonWriter, WritesAHundredThousandLevelsWithoutRecursion) {
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
    EXPECT_EQ(written.substr(0, 12), "{\"k\":[{\"k\":[");
    EXPECT_EQ(written.find("{}"), written.size() - 2 * levels);
}

}  // namespace
