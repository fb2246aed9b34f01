#include "terrane/client/region_selection.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace terrane::common {
namespace {

using ::testing::PrintToString;

TEST(FindRegion, PicksTheLatestRevisionUnlessOneIsNamed) {
    std::vector<OfflineDataRegionMetadata> catalogue;
    for (const auto& [id, revision] :
         {std::pair{"harbour", 2u}, {"harbour", 7u}, {"hills", 1u}, {"harbour", 5u}}) {
        catalogue.emplace_back().id = id;
        catalogue.back().revision = revision;
    }
    // The id, the revision asked for and the region found, or the error.
    const std::tuple<std::string, optional<std::uint32_t>, std::string> rows[] = {
        {"harbour", nullopt, "harbour/7"},
        {"harbour", 5, "harbour/5"},
        {"hills", nullopt, "hills/1"},
        {"harbour", 4,
         "error=NotFound, message=The catalogue has no region 'harbour' at revision 4"},
        {"harb", nullopt, "error=NotFound, message=The catalogue has no region 'harb'"},
    };
    for (const auto& [id, revision, found] : rows) {
        const auto result = findRegion(catalogue, id, revision);
        EXPECT_EQ(result ? PrintToString(*result) : PrintToString(result.error()), found);
    }
}

}  // namespace
}  // namespace terrane::common
