#include "terrane/client/region_selection.hpp"

#include <gtest/gtest.h>

#include <sstream>

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
        std::string found;  // the region, or the error
    } rows[] = {
        {"harbour", nullopt, "harbour/7"},
        {"harbour", 5, "harbour/5"},
        {"hills", nullopt, "hills/1"},
        {"harbour", 4,
         "error=NotFound, message=The catalogue has no region 'harbour' at revision 4"},
        {"harb", nullopt, "error=NotFound, message=The catalogue has no region 'harb'"},
    };
    for (const auto& row : rows) {
        const auto result = findRegion(catalogue, row.id, row.revision);
        std::ostringstream found;
        if (result) {
            found << *result;
        } else {
            found << result.error();
        }
        EXPECT_EQ(found.str(), row.found);
    }
}

}  // namespace
}  // namespace terrane::common
