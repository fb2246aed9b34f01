#include "terrane/http/url_builder.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "terrane/http/url.hpp"

namespace terrane::common {
namespace {

std::string built(const UrlBuilder& builder) {
    const auto result = builder.build();
    return result ? (*result)->getString() : "error: " + result.error();
}

TEST(UrlBuilderTest, JoinsThePartsVerbatimWithParametersOrderedByteWiseByName) {
    UrlBuilder builder;
    EXPECT_EQ(built(builder), "error: Host is not set");
    builder.host("h");
    EXPECT_EQ(built(builder), "https://h/");

    builder.scheme(UrlScheme::Http);
    builder.port(8080);
    // The first empty segment is kept; an empty one after an empty one is dropped.
    for (const char* segment : {"", "", "a/b", "", "", "sp ace%20", ""}) {
        builder.addPathSegment(segment);
    }
    const std::vector<std::pair<std::string, std::string>> parameters{
        {"b", "1"}, {"\xC3\xA9", "2"}, {"B", "3"}, {"", "4"}, {"k&y", "v=l ue"}, {"b", ""}};
    for (const auto& [name, value] : parameters) {
        builder.addQueryParameter(name, value);
    }
    EXPECT_EQ(built(builder), "http://h:8080//a/b//sp ace%20/?=4&B=3&b=1&b&k&y=v=l ue&\xC3\xA9=2");
}

}  // namespace
}  // namespace terrane::common
