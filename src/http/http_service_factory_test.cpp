#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "http/http_service_factory_impl.hpp"
#include "terrane/http/request_id.hpp"
#include "testing/fake_http_service.hpp"

namespace terrane::common {
namespace {

using test::FakeHttpService;

TEST(HttpServiceFactoryImplTest, ADefaultIsSharedWhileHeldAndAUserDefinedOneOnlyWhileItLives) {
    // The platform default is a fake, counted.
    int created = 0;
    HttpServiceFactoryImpl registry{[&created]() -> std::shared_ptr<HttpServiceInterface> {
        ++created;
        return std::make_shared<FakeHttpService>();
    }};
    {
        const auto first = registry.getInstance();
        ASSERT_TRUE(first.value_or(nullptr));
        EXPECT_EQ(registry.getInstance(), first);
    }
    // Released by everybody, so made afresh: the registry itself does not keep it alive.
    ASSERT_TRUE(registry.getInstance().value_or(nullptr));
    EXPECT_EQ(created, 2);

    auto custom = std::make_shared<FakeHttpService>();
    registry.setUserDefined(custom);
    EXPECT_EQ(registry.getInstance(), custom);
    custom.reset();
    ASSERT_TRUE(registry.getInstance().value_or(nullptr));
    EXPECT_EQ(created, 3);

    EXPECT_FALSE(HttpServiceFactoryImpl([] { return nullptr; }).getInstance().has_value());
}

// The counter is process-wide, so "the first id is 1" can only be seen in a process that has drawn
// nothing yet: the threadsafe death-test style re-executes this binary with only this test.
TEST(RequestIdTest, TheFirstIdOfAProcessIsOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(nextHttpRequestId() == 1 && nextHttpRequestId() == 2 ? 0 : 1),
                ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace terrane::common
