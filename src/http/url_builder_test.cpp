#include "terrane/http/url_builder.hpp"

#include <gtest/gtest.h>

#include <string>

#include "terrane/http/url.hpp"

namespace terrane::common {
namespace {

std::string built(const UrlBuilder& builder) {
    const auto result = builder.build();
    if (!result) {
        return "error: " + result.error();
    }
    return (*result)->getString();
}

TEST(UrlBuilderTest, HostAloneGivesHttpsWithRootPath) {
    UrlBuilder builder;
    builder.host("example");
    EXPECT_EQ(built(builder), "https://example/");
}

TEST(UrlBuilderTest, AllPartsTogether) {
    UrlBuilder builder;
    builder.scheme(UrlScheme::Http);
    builder.host("h");
    builder.port(8080);
    builder.addPathSegment("a");
    builder.addPathSegment("b");
    builder.addQueryParameter("z", "1");
    builder.addQueryParameter("a", "");
    builder.addQueryParameter("a", "2");
    EXPECT_EQ(built(builder), "http://h:8080/a/b?a&a=2&z=1");
}

TEST(UrlBuilderTest, EmptyHostFailsWhateverElseIsSet) {
    UrlBuilder builder;
    EXPECT_EQ(built(builder), "error: Host is not set");

    builder.scheme(UrlScheme::Http);
    builder.port(1);
    builder.addPathSegment("p");
    builder.addQueryParameter("q", "v");
    builder.host("");
    EXPECT_EQ(built(builder), "error: Host is not set");

    builder.host("now-set");
    EXPECT_EQ(built(builder), "http://now-set:1/p?q=v");
}

TEST(UrlBuilderTest, SettersReplaceEarlierValues) {
    UrlBuilder builder;
    builder.scheme(UrlScheme::Http);
    builder.scheme(UrlScheme::Https);
    builder.host("first");
    builder.host("second");
    builder.port(80);
    builder.port(65535);
    EXPECT_EQ(built(builder), "https://second:65535/");
    builder.port(0);
    EXPECT_EQ(built(builder), "https://second:0/");
}

TEST(UrlBuilderTest, RunsOfEmptySegmentsCollapseIntoOne) {
    UrlBuilder builder;
    builder.host("h");
    for (const char* segment : {"a", "", "", "b", "", "", ""}) {
        builder.addPathSegment(segment);
    }
    EXPECT_EQ(built(builder), "https://h/a//b/");
}

TEST(UrlBuilderTest, LeadingEmptySegmentIsKept) {
    UrlBuilder builder;
    builder.host("h");
    builder.addPathSegment("");
    EXPECT_EQ(built(builder), "https://h/");
    builder.addPathSegment("");
    builder.addPathSegment("x");
    EXPECT_EQ(built(builder), "https://h//x");
}

TEST(UrlBuilderTest, TextIsNeverEscaped) {
    UrlBuilder builder;
    builder.host("user@h\xC3\xA9");
    builder.addPathSegment("a/b");
    builder.addPathSegment("sp ace%20");
    builder.addQueryParameter("k&y", "v=l ue");
    EXPECT_EQ(built(builder), "https://user@h\xC3\xA9/a/b/sp ace%20?k&y=v=l ue");
}

TEST(UrlBuilderTest, ParametersAreOrderedByteWiseByName) {
    UrlBuilder builder;
    builder.host("h");
    builder.addQueryParameter("b", "1");
    builder.addQueryParameter("\xC3\xA9", "2");  // above every ASCII byte
    builder.addQueryParameter("B", "3");
    builder.addQueryParameter("", "4");
    builder.addQueryParameter("a", "5");
    builder.addQueryParameter("b", "6");
    EXPECT_EQ(built(builder), "https://h/?=4&B=3&a=5&b=1&b=6&\xC3\xA9=2");
}

}  // namespace
}  // namespace terrane::common
