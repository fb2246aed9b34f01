#include "platform/linux/host_resolver.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

namespace terrane::common {
namespace {

// The name comes from the hosts file, which the isolated test namespace still has.
TEST(HostResolverTest, ANameIsLookedUpOffTheCallersThreadAndTheNewAddressesReported) {
    std::promise<std::thread::id> changed;
    HostResolver resolver("localhost", [&] { changed.set_value(std::this_thread::get_id()); });
    resolver.resolve();
    auto reported = changed.get_future();
    ASSERT_EQ(reported.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_NE(reported.get(), std::this_thread::get_id());
    EXPECT_THAT(resolver.addresses(), testing::Contains(*HostResolver::numeric("127.0.0.1")));
}

}  // namespace
}  // namespace terrane::common
