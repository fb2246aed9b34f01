#include "offline/region_catalogue.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "terrane/value/value_converter.hpp"

namespace terrane::common {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

HttpBody bodyOf(std::string_view text) {
    return HttpBody(text.begin(), text.end());
}

HttpResponseData answer(std::int64_t code, std::string_view body) {
    HttpResponseData data;
    data.code = code;
    data.data = bodyOf(body);
    return data;
}

OfflineDataError errorOf(std::int64_t code, std::string_view body) {
    auto result = parseAvailableRegionsList(answer(code, body));
    EXPECT_FALSE(result.has_value()) << "status " << code << " body " << body;
    return result ? OfflineDataError{} : result.error();
}

OfflineDataError invalid(std::string message) {
    return {OfflineDataErrorCode::InvalidResponse, std::move(message)};
}

constexpr std::string_view twoRegions = R"({
    "region-b": {
        "name": "Bravo",
        "revision": 7,
        "last_updated": "2024-03-01T12:00:00.000Z",
        "configuration": {"geography": {"type": "Point", "coordinates": [13.4, 52.5]}},
        "packs": [
            {"domain": "maps", "format": 1, "url": "terrane://offline-data/packs/b/7/maps",
             "md5_checksum": "0123456789abcdef0123456789abcdef", "size": 1024},
            {"domain": "navigation", "format": 2, "url": "u", "md5_checksum": "m", "size": 1},
            {"domain": "satellite", "format": 1, "url": "u", "md5_checksum": "m", "size": 1}
        ]
    },
    "region-a": {"revision": 2, "configuration": {}}
})";

// ---- Status codes ---------------------------------------------------------------------------

TEST(AvailableRegionsList, AListingOf200GivesEveryRegionInDocumentOrder) {
    auto regions = parseAvailableRegionsList(answer(200, twoRegions));
    ASSERT_TRUE(regions.has_value()) << regions.error();
    ASSERT_EQ(regions->size(), 2u);

    const auto& bravo = (*regions)[0];
    EXPECT_EQ(bravo.id, "region-b");
    EXPECT_EQ(bravo.name, "Bravo");
    EXPECT_EQ(bravo.revision, 7u);
    ASSERT_TRUE(bravo.mapPack.has_value());
    EXPECT_EQ(bravo.mapPack->url, "terrane://offline-data/packs/b/7/maps");
    EXPECT_EQ(bravo.mapPack->bytes, 1024u);
    // A navigation pack of a newer format and a domain this build does not know are skipped.
    EXPECT_FALSE(bravo.navigationPack.has_value());

    EXPECT_EQ((*regions)[1].id, "region-a");
    EXPECT_EQ((*regions)[1].revision, 2u);
}

TEST(AvailableRegionsList, AnEmptyObjectIsAnEmptyCatalogue) {
    auto regions = parseAvailableRegionsList(answer(200, " { } "));
    ASSERT_TRUE(regions.has_value());
    EXPECT_THAT(*regions, IsEmpty());
}

TEST(AvailableRegionsList, A204IsReadLikeA200SoWithoutBodyItIsAnEmptyDocument) {
    EXPECT_EQ(errorOf(204, ""), invalid("Parse error: The document is empty."));
    auto regions = parseAvailableRegionsList(answer(204, "{}"));
    ASSERT_TRUE(regions.has_value());
    EXPECT_THAT(*regions, IsEmpty());
}

TEST(AvailableRegionsList, RefusedAccessCarriesTheServersMessage) {
    EXPECT_EQ(errorOf(401, R"({"message": "Invalid Token"})"),
              (OfflineDataError{OfflineDataErrorCode::Unauthorized, "Invalid Token"}));
    EXPECT_EQ(errorOf(403, "Forbidden for this account"),
              (OfflineDataError{OfflineDataErrorCode::Unauthorized, "Forbidden for this account"}));
    EXPECT_EQ(errorOf(404, "gone"), (OfflineDataError{OfflineDataErrorCode::NotFound, "gone"}));
    EXPECT_EQ(errorOf(404, ""), (OfflineDataError{OfflineDataErrorCode::NotFound, ""}));
}

TEST(AvailableRegionsList, AnyOtherStatusIsUnexpectedWhateverTheBodySays) {
    const std::string_view body = R"({"message": "slow down"})";
    EXPECT_EQ(errorOf(429, body), invalid("Got unexpected HTTP status code 429"));
    EXPECT_EQ(errorOf(500, body), invalid("Got unexpected HTTP status code 500"));
    EXPECT_EQ(errorOf(503, twoRegions), invalid("Got unexpected HTTP status code 503"));
    EXPECT_EQ(errorOf(201, "{}"), invalid("Got unexpected HTTP status code 201"));
    EXPECT_EQ(errorOf(304, ""), invalid("Got unexpected HTTP status code 304"));
    EXPECT_EQ(errorOf(0, "{}"), invalid("Got unexpected HTTP status code 0"));
    EXPECT_EQ(errorOf(-1, "{}"), invalid("Got unexpected HTTP status code -1"));
}

// ---- The body -------------------------------------------------------------------------------

TEST(AvailableRegionsList, ABodyThatIsNoJsonObjectFailsWithTheParsersMessage) {
    EXPECT_EQ(errorOf(200, "[]"), invalid("Parse error: root of document must be an object"));
    EXPECT_EQ(errorOf(200, "\"regions\""),
              invalid("Parse error: root of document must be an object"));
    EXPECT_EQ(errorOf(200, "<html>"), invalid("Parse error: Invalid value."));
    EXPECT_EQ(errorOf(200, "{\"a\": 1"),
              invalid("Parse error: Missing a comma or '}' after an object member."));
    EXPECT_EQ(errorOf(200, "{} {}"),
              invalid("Parse error: The document root must not be followed by other values."));
    EXPECT_EQ(errorOf(200, std::string_view("{}\0{}", 5)),
              invalid("Parse error: The document root must not be followed by other values."));
}

TEST(AvailableRegionsList, AByteOrderMarkIsNotSkippedInTheListing) {
    // Only the explanation of an error status is read leniently; a listing must be plain JSON.
    EXPECT_EQ(errorOf(200, "\xEF\xBB\xBF{}"), invalid("Parse error: Invalid value."));
}

TEST(AvailableRegionsList, NestingBeyondTheReadersBoundFailsInsteadOfExhaustingTheStack) {
    const std::size_t depth = ValueConverter::maxNestingDepth + 1;
    const std::string nested =
        R"({"r": )" + std::string(depth, '[') + std::string(depth, ']') + "}";
    const auto error = errorOf(200, nested);
    EXPECT_EQ(error.code, OfflineDataErrorCode::InvalidResponse);
    EXPECT_EQ(error.message, "Parse error: The document is nested more deeply than " +
                                 std::to_string(ValueConverter::maxNestingDepth) + " levels.");
}

TEST(AvailableRegionsList, OneBadRegionFailsTheWholeListWithTheFirstFailure) {
    EXPECT_EQ(errorOf(200, R"({"good": {"revision": 1, "configuration": {}},
                               "bad": {"configuration": {}},
                               "worse": 7})"),
              invalid("Region must have a revision number"));
    EXPECT_EQ(errorOf(200, R"({"a": {"revision": 1, "configuration": {},
                                     "packs": [{"domain": "maps", "format": 1, "url": "u",
                                                "md5_checksum": "m", "size": -5}]}})"),
              invalid("Region pack's size must be a positive integer"));
}

TEST(AvailableRegionsList, ARegionIdThatIsNoSafeDirectoryNameIsLeftOutAndNamed) {
    const std::string revision = R"({"revision": 1, "configuration": {}})";
    const struct {
        std::string json;
        std::string id;
    } rows[] = {{"..", ".."},
                {".", "."},
                {"", ""},
                {"a/b", "a/b"},
                {"../../etc", "../../etc"},
                {"a\\u0000b", std::string("a\0b", 3)},
                {"\\u001b[2J\\r\\n", "\x1B[2J\r\n"}};
    for (const auto& row : rows) {
        std::vector<std::string> unsafe;
        const auto result = parseAvailableRegionsList(
            answer(200, "{\"good\": " + revision + ", \"" + row.json + "\": " + revision + "}"),
            &unsafe);
        ASSERT_TRUE(result) << row.json;
        ASSERT_EQ(result->size(), 1u);
        EXPECT_EQ(result->front().id, "good");
        EXPECT_THAT(unsafe, ElementsAre(row.id));
    }
    EXPECT_EQ(escapeControlCharacters("a\x1B[2J\r\n\\b\x7F"), "a\\x1B[2J\\x0D\\x0A\\\\b\\x7F");
}

// ---- The server's explanation -----------------------------------------------------------------

TEST(ResponseMessage, IsTheMessageMemberOfAJsonObject) {
    EXPECT_EQ(getResponseMessage(bodyOf(R"({"code": 1, "message": "Invalid Token"})")),
              "Invalid Token");
    EXPECT_EQ(getResponseMessage(bodyOf(R"({"message": "caf\u00e9 \"closed\""})")),
              "caf\xC3\xA9 \"closed\"");
    EXPECT_EQ(getResponseMessage(bodyOf(R"({"message": "a\u0000b"})")), std::string("a\0b", 3));
}

TEST(ResponseMessage, SkipsAByteOrderMarkBeforeTheJson) {
    EXPECT_EQ(getResponseMessage(bodyOf("\xEF\xBB\xBF{\"message\": \"expired\"}")), "expired");
}

TEST(ResponseMessage, IsTheWholeBodyWhenThereIsNoMessageString) {
    for (const std::string body :
         {"gone", "", "{\"message\": 42}", "{\"error\": \"x\"}", "[\"message\"]",
          "{\"message\": \"unterminated", "\xEF\xBB\xBFnot json", "\xEF\xBB\xBF",
          "{\"message\": \"x\"} trailing"}) {
        EXPECT_EQ(getResponseMessage(bodyOf(body)), body);
    }
    const std::string binary("\x00\xFF\x01", 3);
    EXPECT_EQ(getResponseMessage(bodyOf(binary)), binary);
}

// ---- Address expansion ------------------------------------------------------------------------

TEST(OfflineDataAddress, TheCatalogueAddressNamesTheUser) {
    EXPECT_EQ(catalogueAddress("alice"), "terrane://offline-data/alice/regions");
}

TEST(OfflineDataAddress, ExpandsOntoABaseWithoutPath) {
    EXPECT_EQ(
        expandOfflineDataURL("terrane://offline-data/alice/regions", "https://example.test", "tk"),
        "https://example.test/offline-data/v1/alice/regions?access_token=tk");
    EXPECT_EQ(
        expandOfflineDataURL("terrane://offline-data/alice/regions", "http://127.0.0.1:8080", "tk"),
        "http://127.0.0.1:8080/offline-data/v1/alice/regions?access_token=tk");
}

TEST(OfflineDataAddress, KeepsTheBasePathInFront) {
    EXPECT_EQ(expandOfflineDataURL("terrane://offline-data/alice/regions",
                                   "https://example.test/api", "tk"),
              "https://example.test/api/offline-data/v1/alice/regions?access_token=tk");
    EXPECT_EQ(expandOfflineDataURL("terrane://offline-data/p/1", "https://example.test/a/b", "tk"),
              "https://example.test/a/b/offline-data/v1/p/1?access_token=tk");
}

TEST(OfflineDataAddress, ATrailingSlashOfTheBaseIsNotDoubled) {
    EXPECT_EQ(expandOfflineDataURL("terrane://offline-data/alice/regions",
                                   "https://example.test/api/", "tk"),
              "https://example.test/api/offline-data/v1/alice/regions?access_token=tk");
    EXPECT_EQ(
        expandOfflineDataURL("terrane://offline-data/alice/regions", "https://example.test/", "tk"),
        "https://example.test/offline-data/v1/alice/regions?access_token=tk");
}

TEST(OfflineDataAddress, AddsTheTokenToAnExistingQuery) {
    EXPECT_EQ(
        expandOfflineDataURL("terrane://offline-data/alice/regions",
                             "https://example.test/api?region=eu&v=2", "tk"),
        "https://example.test/api/offline-data/v1/alice/regions?region=eu&v=2&access_token=tk");
    EXPECT_EQ(
        expandOfflineDataURL("terrane://offline-data/x", "https://example.test?k=1#top", "tk"),
        "https://example.test/offline-data/v1/x?k=1&access_token=tk#top");
}

TEST(OfflineDataAddress, EncodesInTheTokenOnlyWhatWouldChangeTheQuery) {
    const struct {
        std::string token;
        std::string query;
    } rows[] = {
        {"Az09-._~", "Az09-._~"},
        {"a/b:c@d=e?f!$'()*,;", "a/b:c@d=e?f!$'()*,;"},
        {"ab+cd", "ab%2Bcd"},
        {"ab&x=1", "ab%26x=1"},
        {"ab#f", "ab%23f"},
        {"a b%20", "a%20b%2520"},
        {"t\r\n\x1F\x7F", "t%0D%0A%1F%7F"},
        {"", ""},
    };
    for (const auto& row : rows) {
        const std::string url =
            expandOfflineDataURL("terrane://offline-data/x", "https://example.test", row.token);
        EXPECT_EQ(url, "https://example.test/offline-data/v1/x?access_token=" + row.query)
            << row.token;
        // Whatever form the token took, a message quoting the address never shows it.
        if (!row.token.empty()) {
            EXPECT_EQ(redactSecret(url, row.token).find(row.query), std::string::npos) << url;
        }
    }
}

TEST(OfflineDataAddress, TakesOnlyThePathOfTheAddress) {
    EXPECT_EQ(expandOfflineDataURL("terrane://offline-data/x/y?access_token=old#frag",
                                   "https://example.test", "tk"),
              "https://example.test/offline-data/v1/x/y?access_token=tk");
    EXPECT_EQ(expandOfflineDataURL("TERRANE://offline-data/x", "https://example.test", "tk"),
              "https://example.test/offline-data/v1/x?access_token=tk");
}

TEST(OfflineDataAddress, OtherAddressesPassThroughUnchanged) {
    for (const std::string url :
         {"https://cdn.example.test/packs/1?sig=abc", "http://example.test/offline-data/x",
          "terrane://elsewhere/x", "terrane://OFFLINE-DATA/x", "terrane:offline-data/x",
          "terrane:///offline-data/x", "//offline-data/x", "offline-data/x", "",
          "data:text/plain,terrane://offline-data/x"}) {
        EXPECT_EQ(expandOfflineDataURL(url, "https://example.test", "tk"), url);
    }
}

// ---- Redaction --------------------------------------------------------------------------------

TEST(Redaction, MasksEveryOccurrenceOfTheSecret) {
    EXPECT_EQ(redactSecret("GET https://h/x?access_token=SECRET-TOKEN failed: SECRET-TOKEN",
                           "SECRET-TOKEN"),
              "GET https://h/x?access_token=*** failed: ***");
    EXPECT_EQ(redactSecret("nothing to hide", "SECRET-TOKEN"), "nothing to hide");
}

TEST(Redaction, AnEmptySecretChangesNothing) {
    EXPECT_EQ(redactSecret("access_token=", ""), "access_token=");
    EXPECT_EQ(redactSecret("", ""), "");
}

TEST(Redaction, LeavesNoOccurrenceFormedAroundAMask) {
    EXPECT_EQ(redactSecret("SESECRETCRET", "SECRET"), "SE***CRET");
    EXPECT_EQ(redactSecret("aaaa", "aa"), "******");
    EXPECT_EQ(redactSecret("ababa", "aba"), "***ba");
}

TEST(Redaction, MasksPercentEncodedFormsToo) {
    EXPECT_EQ(redactSecret("token=a%2Fb%20c and a%2fb%20c and a/b c", "a/b c"),
              "token=*** and *** and ***");
}

TEST(Redaction, ASecretThatHoldsTheMaskCharacterGetsAnotherMask) {
    const auto redacted = redactSecret("x**y", "**");
    EXPECT_EQ(redacted.find("**"), std::string::npos) << redacted;
    EXPECT_EQ(redacted, "x!!!y");
}

TEST(Redaction, ASecretWithEveryPossibleMaskWithholdsTheText) {
    std::string secret;
    for (char c = '!'; c <= '~'; ++c) {
        secret += c;
    }
    EXPECT_EQ(redactSecret("before " + secret + " after", secret), "(withheld)");
    EXPECT_EQ(redactSecret("harmless", secret), "harmless");
}

}  // namespace
}  // namespace terrane::common
