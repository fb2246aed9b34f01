#include "offline/region_catalogue.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>

namespace terrane::common {
namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;

HttpBody bodyOf(std::string_view text) {
    return HttpBody(text.begin(), text.end());
}

// The error of a listing, or the ids it gave.
std::string outcome(std::int64_t code, std::string_view body) {
    const auto result = parseAvailableRegionsList(HttpResponseData{{}, code, bodyOf(body)});
    if (!result) {
        std::ostringstream text;
        text << result.error();
        return text.str();
    }
    std::string ids;
    for (const auto& region : *result) {
        ids += region.id + "/" + std::to_string(region.revision) + " ";
    }
    return ids;
}

TEST(AvailableRegionsList, EachAnswerGivesItsRegionsOrItsError) {
    const std::string revision = R"({"revision": 1, "configuration": {}})";
    const std::tuple<std::int64_t, std::string, std::string> rows[] = {
        {200, R"({"b": {"revision": 7, "configuration": {}}, "a": )" + revision + "}", "b/7 a/1 "},
        {204, "{}", ""},
        {204, "", "error=InvalidResponse, message=Parse error: The document is empty."},
        // An error status is explained by the message string of a JSON object, else the body.
        {401, R"({"message": "Invalid Token"})", "error=Unauthorized, message=Invalid Token"},
        {403, "\xEF\xBB\xBF{\"message\": \"a\\u0000b\"}", "error=Unauthorized, message=a\0b"s},
        {404, R"({"message": 42})", R"(error=NotFound, message={"message": 42})"},
        {429, R"({"message": "slow down"})",
         "error=InvalidResponse, message=Got unexpected HTTP status code 429"},
        {200, "[]",
         "error=InvalidResponse, message=Parse error: root of document must be an object"},
        // Only the explanation of an error status may start with a byte-order mark.
        {200, "\xEF\xBB\xBF{}", "error=InvalidResponse, message=Parse error: Invalid value."},
        // One bad region fails the whole list with the first failure.
        {200, R"({"good": )" + revision + R"(, "bad": {"configuration": {}}, "worse": 7})",
         "error=InvalidResponse, message=Region must have a revision number"},
    };
    for (const auto& [code, body, expected] : rows) {
        EXPECT_EQ(outcome(code, body), expected) << code << " " << body;
    }
}

// Ids that would leave the storage root or hold control characters; the JSON escapes become
// those bytes.
TEST(AvailableRegionsList, ARegionIdThatIsNoSafeDirectoryNameIsLeftOutAndNamed) {
    std::string listing = "{";
    for (const std::string id : {"", ".", "..", "a/b", "/", "a\\u0000b", "a\\u001F", "\\u007F",
                                 "berlin", "...", ".hidden", "a b", "a\\\\b", "~ \\u0080"}) {
        listing += "\"" + id + R"(": {"revision": 1, "configuration": {}},)";
    }
    listing.back() = '}';
    std::vector<std::string> unsafe;
    const auto result =
        parseAvailableRegionsList(HttpResponseData{{}, 200, bodyOf(listing)}, &unsafe);
    ASSERT_TRUE(result);
    std::string ids;
    for (const auto& region : *result) {
        ids += region.id + "|";
    }
    EXPECT_EQ(ids, "berlin|...|.hidden|a b|a\\b|~ \xC2\x80|");
    EXPECT_THAT(unsafe, ElementsAre("", ".", "..", "a/b", "/", "a\0b"s, "a\x1F", "\x7F"));
    EXPECT_EQ(escapeControlCharacters("a\x1B[2J\r\n\\b\x7F"), "a\\x1B[2J\\x0D\\x0A\\\\b\\x7F");
}

TEST(OfflineDataAddress, OnlyOfflineDataAddressesAreExpandedOntoTheEndpoint) {
    const std::string x = "terrane://offline-data/x";
    // The address, the endpoint, the token and the expanded address.
    const std::array<std::string, 4> rows[] = {
        {catalogueAddress("alice"), "https://h", "tk",
         "https://h/offline-data/v1/alice/regions?access_token=tk"},
        {x, "http://127.0.0.1:8080/a/b", "tk",
         "http://127.0.0.1:8080/a/b/offline-data/v1/x?access_token=tk"},
        {x, "https://h/api/", "tk", "https://h/api/offline-data/v1/x?access_token=tk"},
        {x, "https://h?k=1#top", "tk", "https://h/offline-data/v1/x?k=1&access_token=tk#top"},
        {x + "/y?access_token=old#frag", "https://h", "tk",
         "https://h/offline-data/v1/x/y?access_token=tk"},
        // In the token only what would change the query is encoded.
        {x, "https://h", "Az09-._~/:@=?!$'()*,;",
         "https://h/offline-data/v1/x?access_token=Az09-._~/:@=?!$'()*,;"},
        {x, "https://h", "a+b&c#d e%\r\x1F\x7F",
         "https://h/offline-data/v1/x?access_token=a%2Bb%26c%23d%20e%25%0D%1F%7F"},
    };
    for (const auto& [url, base, token, expected] : rows) {
        EXPECT_EQ(expandOfflineDataURL(url, base, token), expected) << url;
        // Whatever form the token took, a message quoting the address never shows it.
        const auto query = expected.substr(expected.find("access_token=") + 13);
        EXPECT_EQ(redactSecret(expected, token).find(query), std::string::npos);
    }
    // The scheme and the host must both be the offline data service's.
    for (const std::string other : {"https://cdn/p?sig=abc", "terrane://elsewhere/x",
                                    "//offline-data/x", "terrane:///offline-data/x"}) {
        EXPECT_EQ(expandOfflineDataURL(other, "https://h", "tk"), other);
    }
}

TEST(Redaction, EveryFormOfTheSecretIsMaskedAndNoneSurvives) {
    std::string everyMask;
    for (char c = '!'; c <= '~'; ++c) {
        everyMask += c;
    }
    const std::array<std::string, 3> rows[] = {
        {"GET /x?access_token=SECRET failed: SECRET", "SECRET",
         "GET /x?access_token=*** failed: ***"},
        {"access_token=", "", "access_token="},
        {"SESECRETCRET", "SECRET", "SE***CRET"},
        {"ababa", "aba", "***ba"},
        {"a%2Fb%20c a%2fb%20c a/b c a/b%20c", "a/b c", "*** *** *** ***"},
        // Just inside and just outside each class of unreserved characters.
        {"AZaz09-._~%40%5B%60%7B%2F%3A%2C AZaz09-._~%40%5b%60%7b%2f%3a%2c", "AZaz09-._~@[`{/:,",
         "*** ***"},
        // A secret that holds the mask character gets another mask.
        {"x**y", "**", "x!!!y"},
        {"before " + everyMask + " after", everyMask, "(withheld)"},
        {"harmless", everyMask, "harmless"},
        {"x!\"#$%&'()*+,-./", "!\"#$%&'()*+,-./", "x:::"},  // no hexadecimal digit masks
        {"x" + everyMask.substr(0, everyMask.size() - 1), everyMask.substr(0, everyMask.size() - 1),
         "x~~~"},
        // Up to "@" and up to "`": the next masks skip the upper- and lower-case hex digits.
        {"x" + everyMask.substr(0, 32), everyMask.substr(0, 32), "xGGG"},
        {"x" + everyMask.substr(0, 64), everyMask.substr(0, 64), "xggg"},
    };
    for (const auto& [text, secret, expected] : rows) {
        EXPECT_EQ(redactSecret(text, secret), expected) << text;
    }
}

}  // namespace
}  // namespace terrane::common
