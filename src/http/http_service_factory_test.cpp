#include "terrane/http/http_service_factory.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "http/http_service_factory_impl.hpp"
#include "terrane/http/request_id.hpp"

namespace terrane::common {
namespace {

// Answers nothing; the factory only hands services around.
class StubHttpService : public HttpServiceInterface {
  public:
    void setMaxRequestsPerHost(std::uint8_t) override {}
    std::uint64_t request(HttpRequest&&, HttpResponseCallback&&) override {
        return nextHttpRequestId();
    }
    void cancelRequest(std::uint64_t, ResultCallback&&) override {}
    bool supportsKeepCompression() override { return false; }
    std::uint64_t download(DownloadOptions&&, DownloadStatusCallback&&) override {
        return nextHttpRequestId();
    }
};

// A registry whose platform default is a stub, counting how many it made.
struct CountingRegistry {
    std::atomic<int> created{0};
    HttpServiceFactoryImpl registry{[this]() -> std::shared_ptr<HttpServiceInterface> {
        ++created;
        return std::make_shared<StubHttpService>();
    }};
};

TEST(HttpServiceFactoryImplTest, ADefaultIsSharedWhileHeldAndAUserDefinedOneOnlyWhileItLives) {
    CountingRegistry factory;
    {
        const auto first = factory.registry.getInstance();
        ASSERT_TRUE(first && *first);
        EXPECT_EQ(*factory.registry.getInstance(), *first);
        EXPECT_EQ(factory.created, 1);
    }
    // Released by everybody, so made afresh: the registry itself does not keep it alive.
    ASSERT_TRUE(factory.registry.getInstance().value_or(nullptr));
    EXPECT_EQ(factory.created, 2);

    auto custom = std::make_shared<StubHttpService>();
    factory.registry.setUserDefined(custom);
    EXPECT_EQ(*factory.registry.getInstance(), custom);
    EXPECT_EQ(custom.use_count(), 1);
    custom.reset();
    ASSERT_TRUE(factory.registry.getInstance().value_or(nullptr));
    EXPECT_EQ(factory.created, 3);

    factory.registry.setUserDefined(std::make_shared<StubHttpService>());
    factory.registry.setUserDefined(nullptr);
    ASSERT_TRUE(factory.registry.getInstance().value_or(nullptr));
    EXPECT_EQ(factory.created, 4);

    HttpServiceFactoryImpl empty{[] { return std::shared_ptr<HttpServiceInterface>(); }};
    EXPECT_FALSE(empty.getInstance().has_value());
    HttpServiceFactoryImpl withoutCreator{nullptr};
    EXPECT_FALSE(withoutCreator.getInstance().has_value());
}

TEST(HttpServiceFactoryImplTest, RacingCallersAlwaysGetALiveService) {
    CountingRegistry factory;
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    std::atomic<int> failures{0};
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int round = 0; round < kRounds; ++round) {
                    if (t == 0 && round % 10 == 0) {
                        auto custom = std::make_shared<StubHttpService>();
                        factory.registry.setUserDefined(custom);
                        continue;  // released at once: the next callers fall back
                    }
                    const auto service = factory.registry.getInstance();
                    if (!service || !*service) {
                        ++failures;
                        continue;
                    }
                    (*service)->supportsKeepCompression();
                }
            });
        }
    }
    EXPECT_EQ(failures, 0);
}

// The process-wide factory of this build has no platform service, so only a service the
// application supplies is ever in force.
class HttpServiceFactoryTest : public ::testing::Test {
  protected:
    void TearDown() override { HttpServiceFactory::setUserDefined(nullptr); }
};

TEST_F(HttpServiceFactoryTest, TheUserDefinedServiceIsInForceUntilItsLastHolderLetsGo) {
    auto custom = std::make_shared<StubHttpService>();
    HttpServiceFactory::setUserDefined(custom);

    auto held = HttpServiceFactory::getInstance();
    ASSERT_TRUE(held.has_value());
    EXPECT_EQ(*held, custom);

    custom.reset();
    EXPECT_EQ(HttpServiceFactory::getInstance().value(), *held);  // still held through `held`
    held.reset();
    // Released: the platform default takes over.
    auto fallback = HttpServiceFactory::getInstance();
    ASSERT_TRUE(fallback.has_value());
    EXPECT_EQ(dynamic_cast<StubHttpService*>(fallback->get()), nullptr);
}

}  // namespace
}  // namespace terrane::common
