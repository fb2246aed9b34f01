#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <thread>
#include <vector>

#include "terrane/http/request_id.hpp"

namespace terrane::common {
namespace {

// The counter is process-wide, so "the first id is 1" can only be seen in a process that has drawn
// nothing yet: the threadsafe death-test style re-executes this binary with only this test.
TEST(RequestIdTest, TheFirstIdOfAProcessIsOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(nextHttpRequestId() == 1 && nextHttpRequestId() == 2 ? 0 : 1),
                ::testing::ExitedWithCode(0), "");
}

TEST(RequestIdTest, IdsDrawnFromManyThreadsAreUniqueAndIncreasing) {
    std::vector<std::vector<std::uint64_t>> drawn(4);
    {
        std::vector<std::jthread> threads;
        for (auto& ids : drawn) {
            threads.emplace_back([&ids] {
                for (int i = 0; i < 2000; ++i) {
                    ids.push_back(nextHttpRequestId());
                }
            });
        }
    }
    std::vector<std::uint64_t> all;
    for (const auto& ids : drawn) {
        EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
        all.insert(all.end(), ids.begin(), ids.end());
    }
    std::sort(all.begin(), all.end());
    // Nobody else draws in this process meanwhile, so the block is gap-free.
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
    EXPECT_EQ(all.back() - all.front() + 1, all.size());
}

}  // namespace
}  // namespace terrane::common
