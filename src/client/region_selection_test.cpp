#include "terrane/client/region_selection.hpp"

#include <gtest/gtest.h>

namespace terrane::common {
namespace {

OfflineDataRegionMetadata region(std::string id, std::uint32_t revision) {
    OfflineDataRegionMetadata described;
    described.id = std::move(id);
    described.revision = revision;
    return described;
}

TEST(FindRegion, PicksTheLatestRevisionUnlessOneIsNamed) {
    const std::vector catalogue{region("harbour", 2), region("harbour", 7), region("hills", 1),
                                region("harbour", 5)};
    struct Row {
        std::string id;
        optional<std::uint32_t> revision;
        // 0: NotFound, with the message.
        std::uint32_t found;
        std::string message;
    };
    const Row rows[] = {
        {"harbour", nullopt, 7, ""},
        {"harbour", 5, 5, ""},
        {"hills", nullopt, 1, ""},
        {"harbour", 4, 0, "The catalogue has no region 'harbour' at revision 4"},
        {"harb", nullopt, 0, "The catalogue has no region 'harb'"},
    };
    for (const auto& row : rows) {
        const auto result = findRegion(catalogue, row.id, row.revision);
        if (row.found == 0) {
            ASSERT_FALSE(result) << row.id;
            EXPECT_EQ(result.error(),
                      (OfflineDataError{OfflineDataErrorCode::NotFound, row.message}));
        } else {
            ASSERT_TRUE(result) << row.id;
            EXPECT_EQ(result->id, row.id);
            EXPECT_EQ(result->revision, row.found);
        }
    }
}

}  // namespace
}  // namespace terrane::common
