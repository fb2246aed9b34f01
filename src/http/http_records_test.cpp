#include <gtest/gtest.h>

#include <cstdlib>

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

}  // namespace
}  // namespace terrane::common
