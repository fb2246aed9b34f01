// `publish` turns pack files and a small description into a catalogue tree that the offline
// service reads: sizes and MD5 checksums computed, "terrane://" addresses, outlines converted.

#include <gtest/gtest.h>

#include <terrane/util/md5.hpp>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

using feature::value;

class PublishTest : public ::testing::Test {
  protected:
    fs::path source() const { return scratch_.path() / "source"; }
    fs::path out() const { return scratch_.path() / "www"; }

    RunResult publishTo(const std::string& user) {
        return runTool({"publish", source().string(), out().string(), "--user", user});
    }

    ScratchDirectory scratch_;
};

const value& packOfDomain(const value& region, const std::string& domain) {
    for (const value& pack : at(region, "packs").get<value::array_type>()) {
        if (text(at(pack, "domain")) == domain) {
            return pack;
        }
    }
    throw std::runtime_error("no " + domain + " pack");
}

TEST_F(PublishTest, WritesTheCatalogueWithChecksumsSizesAndAddresses) {
    writeSource(source());
    const RunResult result = publishTo("alice");
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("Published 2 regions for user alice"), std::string::npos);

    const fs::path userDirectory = out() / "offline-data" / "v1" / "alice";
    const value catalogue = parseJson(readFile(userDirectory / "regions"));
    const value& harbour = at(catalogue, "harbour");
    EXPECT_EQ(text(at(harbour, "name")), "Harbour City");
    EXPECT_EQ(number(at(harbour, "revision")), 2u);
    EXPECT_EQ(text(at(harbour, "last_updated")), "2024-03-01T10:00:00Z");
    const value& geography = at(at(harbour, "configuration"), "geography");
    EXPECT_EQ(text(at(geography, "type")), "Point") << "a Feature is reduced to its geometry";

    const value& maps = packOfDomain(harbour, "maps");
    EXPECT_EQ(text(at(maps, "url")), "terrane://offline-data/alice/packs/harbour/2/maps.pack");
    EXPECT_EQ(number(at(maps, "format")), 1u);
    EXPECT_EQ(number(at(maps, "size")), SourcePacks{}.harbourMaps);
    EXPECT_EQ(text(at(maps, "data_version")), "2024.03");
    const fs::path served = userDirectory / "packs" / "harbour" / "2" / "maps.pack";
    EXPECT_EQ(text(at(maps, "md5_checksum")), *common::util::md5File(served.string()));
    EXPECT_EQ(readFile(served), readFile(source() / "harbour-maps.bin"));
    EXPECT_EQ(text(at(packOfDomain(harbour, "navigation"), "data_version")), "");

    const value& plain = at(catalogue, "plain");
    EXPECT_EQ(text(at(plain, "name")), "plain") << "the id stands in for a missing name";
    EXPECT_TRUE(at(at(plain, "configuration"), "geography").is<feature::null_value_t>());
    EXPECT_EQ(at(plain, "packs").get<value::array_type>().size(), 1u);
}

TEST_F(PublishTest, RepublishingReplacesTheCatalogueWhole) {
    writeSource(source());
    ASSERT_EQ(publishTo("alice").status, 0);
    writeFile(source() / "harbour-maps.bin", patternBytes(1000, 42));
    ASSERT_EQ(publishTo("alice").status, 0);
    const value catalogue =
        parseJson(readFile(out() / "offline-data" / "v1" / "alice" / "regions"));
    EXPECT_EQ(number(at(packOfDomain(at(catalogue, "harbour"), "maps"), "size")), 1000u);
    EXPECT_FALSE(fs::exists(out() / "offline-data" / "v1" / "alice" / "regions.tmp"));
}

TEST_F(PublishTest, FaultyDescriptionsAreRefusedWithTheEntryAtFault) {
    writeSource(source());
    const auto expectRefusal = [this](const std::string& description, const std::string& message) {
        writeFile(source() / "regions.json", description);
        const RunResult result = publishTo("alice");
        EXPECT_EQ(result.status, 5) << description;
        EXPECT_EQ(result.errLines().size(), 1u) << result.err;
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
    };
    expectRefusal("[]", "must be an object with a \"regions\" object inside");
    expectRefusal("{\"regions\": {\"r\": {\"packs\": {}}}}",
                  "region 'r': \"revision\" must be a whole number");
    expectRefusal("{\"regions\": {\"r\": {\"revision\": 1, \"packs\": {\"maps\": \"nope.bin\"}}}}",
                  "nope.bin' does not exist");
    expectRefusal("{\"regions\": {\"r\": {\"revision\": 1, \"packs\": {\"roads\": \"x\"}}}}",
                  "unknown pack domain 'roads'");
    expectRefusal("{\"regions\": {\"../r\": {\"revision\": 1}}}", "region ids may use");
    expectRefusal("{\"regions\": {\"r\": {\"revision\": 1, \"last_updated\": \"yesterday\"}}}",
                  "must be an RFC 3339 time");
    writeFile(source() / "many.geojson", R"({"type":"FeatureCollection","features":[]})");
    expectRefusal("{\"regions\": {\"r\": {\"revision\": 1, \"geography\": \"many.geojson\"}}}",
                  "not a FeatureCollection");
    EXPECT_FALSE(fs::exists(out() / "offline-data" / "v1" / "alice" / "regions"));
}

TEST_F(PublishTest, UserNamesThatAreNotPathSafeAreRefused) {
    writeSource(source());
    const RunResult result = publishTo("../eve");
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("--user must be a name of letters"), std::string::npos);
}

}  // namespace
}  // namespace terrane::tool::test
