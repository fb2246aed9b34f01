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

// Domain names and formats are shown by the catalogue tests, errors by every message test.
TEST(OfflineData, TextFormsForMessages) {
    const std::string codes[] = {
        "Unknown", "NotFound",        "Unauthorized", "RateLimited", "Connection",
        "Server",  "InvalidResponse", "Corrupt",      "Filesystem",  "<unknown error code>"};
    for (std::uint32_t code = 0; code < std::size(codes); ++code) {
        EXPECT_EQ(printed(static_cast<OfflineDataErrorCode>(code)), codes[code]);
    }
    EXPECT_EQ(printed(OfflineDataDomain::Maps) + printed(OfflineDataDomain::Navigation) +
                  printed(static_cast<OfflineDataDomain>(2)),
              "MapsNavigation<unknown domain>");
    EXPECT_EQ(printed(OfflineDataPackMetadata{"u", "0cc175b9", 1, 1, ""}), "0cc175b9");
}

TEST(OfflineData, AnObserverThatOpensNoFilesAcknowledgesADeletionAtOnce) {
    class Quiet : public OfflineServiceObserver {};
    Quiet observer;
    int acknowledgements = 0;
    observer.onDeleting(OfflineDataDomain::Maps, {}, {}, [&] { ++acknowledgements; });
    EXPECT_EQ(acknowledgements, 1);
}

}  // namespace
}  // namespace terrane::common
