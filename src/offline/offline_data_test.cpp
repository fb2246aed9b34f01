#include "terrane/offline/offline_data.hpp"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace terrane::common {
namespace {

template <typename T>
std::string printed(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

OfflineDataPackMetadata samplePack() {
    return {"terrane://offline-data/alice/packs/1", "0cc175b9c0f1b6a831c399e269772661", 10, 1,
            "2024.1"};
}

OfflineDataRegionMetadata sampleRegion() {
    OfflineDataRegionMetadata region;
    region.id = "region-a";
    region.revision = 3;
    region.name = "Region A";
    region.mapPack = samplePack();
    return region;
}

TEST(OfflineDataText, ErrorCodesPrintTheirEnumeratorNames) {
    EXPECT_EQ(printed(OfflineDataErrorCode::Unknown), "Unknown");
    EXPECT_EQ(printed(OfflineDataErrorCode::NotFound), "NotFound");
    EXPECT_EQ(printed(OfflineDataErrorCode::Unauthorized), "Unauthorized");
    EXPECT_EQ(printed(OfflineDataErrorCode::RateLimited), "RateLimited");
    EXPECT_EQ(printed(OfflineDataErrorCode::Connection), "Connection");
    EXPECT_EQ(printed(OfflineDataErrorCode::Server), "Server");
    EXPECT_EQ(printed(OfflineDataErrorCode::InvalidResponse), "InvalidResponse");
    EXPECT_EQ(printed(OfflineDataErrorCode::Corrupt), "Corrupt");
    EXPECT_EQ(printed(OfflineDataErrorCode::Filesystem), "Filesystem");
    EXPECT_EQ(printed(static_cast<OfflineDataErrorCode>(9)), "<unknown error code>");
}

TEST(OfflineDataText, ErrorPrintsCodeAndMessageWithoutDecoration) {
    EXPECT_EQ(printed(OfflineDataError{OfflineDataErrorCode::NotFound, "gone"}),
              "error=NotFound, message=gone");
    EXPECT_EQ(printed(OfflineDataError{static_cast<OfflineDataErrorCode>(9), ""}),
              "error=<unknown error code>, message=");
}

TEST(OfflineDataText, DomainsPrintCapitalisedButConvertToLowerCase) {
    EXPECT_EQ(printed(OfflineDataDomain::Maps), "Maps");
    EXPECT_EQ(printed(OfflineDataDomain::Navigation), "Navigation");
    EXPECT_EQ(printed(static_cast<OfflineDataDomain>(2)), "<unknown domain>");
    EXPECT_EQ(toString(OfflineDataDomain::Maps), "maps");
    EXPECT_EQ(toString(OfflineDataDomain::Navigation), "navigation");
}

TEST(OfflineDataText, RegionPrintsIdAndRevisionAndPackPrintsItsChecksum) {
    EXPECT_EQ(printed(sampleRegion()), "region-a/3");
    EXPECT_EQ(printed(samplePack()), "0cc175b9c0f1b6a831c399e269772661");
}

TEST(OfflineDataDomainNames, ToDomainAcceptsOnlyTheExactNames) {
    EXPECT_EQ(toDomain("maps"), OfflineDataDomain::Maps);
    EXPECT_EQ(toDomain("navigation"), OfflineDataDomain::Navigation);
    EXPECT_EQ(toDomain("Maps"), nullopt);
    EXPECT_EQ(toDomain("maps "), nullopt);
    EXPECT_EQ(toDomain("map"), nullopt);
    EXPECT_EQ(toDomain("navigationx"), nullopt);
    EXPECT_EQ(toDomain(""), nullopt);
    EXPECT_EQ(toDomain(std::string("maps\0", 5)), nullopt);
}

TEST(OfflineDataDomainNamesDeathTest, NamingAnImpossibleDomainAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(toString(static_cast<OfflineDataDomain>(2)), "");
}

TEST(OfflineDataFormats, BothDomainsExpectFormatOne) {
    EXPECT_EQ(expectedFormat(OfflineDataDomain::Maps), 1u);
    EXPECT_EQ(expectedFormat(OfflineDataDomain::Navigation), 1u);
    EXPECT_EQ(expectedFormat(static_cast<OfflineDataDomain>(2)), 0u);
}

TEST(OfflineDataRecords, DefaultsDescribeNothing) {
    const OfflineDataRegionMetadata region;
    EXPECT_EQ(region.last_updated.time_since_epoch().count(), 0);
    EXPECT_TRUE(region.geography.is<geometry::empty>());
    EXPECT_FALSE(region.mapPack);
    EXPECT_FALSE(region.navigationPack);

    const OfflineServiceOptions options;
    EXPECT_FALSE(options.baseURL);
    EXPECT_TRUE(defaultCatalogueEndpoint.starts_with("https://"));
}

TEST(OfflineDataRecords, EqualityLooksAtEveryField) {
    const OfflineDataRegionMetadata region = sampleRegion();
    EXPECT_EQ(region, sampleRegion());

    auto withOutline = sampleRegion();
    withOutline.geography = geometry::point(13.4, 52.5);
    EXPECT_NE(withOutline, region);

    auto later = sampleRegion();
    later.last_updated += std::chrono::milliseconds(1);
    EXPECT_NE(later, region);

    auto otherChecksum = sampleRegion();
    otherChecksum.mapPack->md5_checksum = "x";
    EXPECT_NE(otherChecksum, region);

    const OfflineDataPack erroredPack{OfflineDataPackStatus::Errored,
                                      OfflineDataError{OfflineDataErrorCode::Server, "down"}, "",
                                      0};
    EXPECT_NE(erroredPack, (OfflineDataPack{OfflineDataPackStatus::Errored, nullopt, "", 0}));
}

}  // namespace
}  // namespace terrane::common
