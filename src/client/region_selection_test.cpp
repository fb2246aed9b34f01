#include "terrane/client/region_selection.hpp"

#include <gtest/gtest.h>

namespace terrane::common {
namespace {

TEST(FindRegion, PicksTheLatestRevisionUnlessOneIsNamed) {
    std::vector<OfflineDataRegionMetadata> catalogue;
    for (const auto& [id, revision] :
         {std::pair{"harbour", 2u}, {"harbour", 7u}, {"hills", 1u}, {"harbour", 5u}}) {
        catalogue.emplace_back().id = id;
        catalogue.back().revision = revision;
    }
    const struct {
        std::string id;
        optional<std::uint32_t> revision;
        // 0: NotFound, with the message.
        std::uint32_t found;
        std::string message;
    } rows[] = {
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
