#include "terrane/offline/offline_data.hpp"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "terrane/offline/offline_service_observer.hpp"

namespace terrane::common {
namespace {

template <typename T>
std::string printed(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

TEST(OfflineData, TextFormsForMessagesAndPaths) {
    const std::string codes[] = {
        "Unknown", "NotFound",        "Unauthorized", "RateLimited", "Connection",
        "Server",  "InvalidResponse", "Corrupt",      "Filesystem",  "<unknown error code>"};
    for (std::uint32_t code = 0; code < std::size(codes); ++code) {
        EXPECT_EQ(printed(static_cast<OfflineDataErrorCode>(code)), codes[code]);
    }
    EXPECT_EQ(printed(OfflineDataError{OfflineDataErrorCode::NotFound, "gone"}),
              "error=NotFound, message=gone");
    EXPECT_EQ(printed(OfflineDataDomain::Maps) + printed(OfflineDataDomain::Navigation) +
                  printed(static_cast<OfflineDataDomain>(2)),
              "MapsNavigation<unknown domain>");
    OfflineDataRegionMetadata region;
    region.id = "region-a";
    region.revision = 3;
    EXPECT_EQ(printed(region), "region-a/3");
    EXPECT_EQ(printed(OfflineDataPackMetadata{"u", "0cc175b9", 1, 1, ""}), "0cc175b9");
    for (const auto domain : {OfflineDataDomain::Maps, OfflineDataDomain::Navigation}) {
        EXPECT_EQ(toDomain(toString(domain)), domain);
        EXPECT_EQ(expectedFormat(domain), 1u);
    }
    EXPECT_EQ(expectedFormat(static_cast<OfflineDataDomain>(2)), 0u);
    using namespace std::string_literals;
    for (const auto& other : {"Maps"s, "maps "s, "map"s, "navigationx"s, ""s, "maps\0"s}) {
        EXPECT_EQ(toDomain(other), nullopt) << other;
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(toString(static_cast<OfflineDataDomain>(2)), "");
}

TEST(OfflineData, AnObserverThatOpensNoFilesAcknowledgesADeletionAtOnce) {
    class Quiet : public OfflineServiceObserver {};
    Quiet observer;
    int acknowledgements = 0;
    observer.onDeleting(OfflineDataDomain::Maps, {}, {}, [&] { ++acknowledgements; });
    observer.onDeleting(OfflineDataDomain::Maps, {}, {}, {});  // an empty one is tolerated
    EXPECT_EQ(acknowledgements, 1);
}

}  // namespace
}  // namespace terrane::common
