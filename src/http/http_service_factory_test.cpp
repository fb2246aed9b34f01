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

TEST(HttpServiceFactoryImplTest, APlatformDefaultIsSharedWhileSomebodyHoldsIt) {
    CountingRegistry factory;
    const auto first = factory.registry.getInstance();
    const auto second = factory.registry.getInstance();
    ASSERT_TRUE(first && *first);
    EXPECT_EQ(*first, *second);
    EXPECT_EQ(factory.created, 1);
}

TEST(HttpServiceFactoryImplTest, AReleasedPlatformDefaultIsCreatedAfresh) {
    CountingRegistry factory;
    std::weak_ptr<HttpServiceInterface> old = *factory.registry.getInstance();
    // The registry itself must not have kept the default alive.
    EXPECT_TRUE(old.expired());
    const auto fresh = factory.registry.getInstance();
    ASSERT_TRUE(fresh && *fresh);
    EXPECT_EQ(factory.created, 2);
}

TEST(HttpServiceFactoryImplTest, AUserDefinedServiceIsInForceOnlyWhileItLives) {
    CountingRegistry factory;
    auto custom = std::make_shared<StubHttpService>();
    factory.registry.setUserDefined(custom);
    EXPECT_EQ(*factory.registry.getInstance(), custom);
    EXPECT_EQ(factory.created, 0);
    EXPECT_EQ(custom.use_count(), 1);  // the registry holds it weakly

    custom.reset();
    const auto fallback = factory.registry.getInstance();
    ASSERT_TRUE(fallback && *fallback);
    EXPECT_EQ(factory.created, 1);
}

TEST(HttpServiceFactoryImplTest, ClearingTheUserDefinedServiceRestoresThePlatformDefault) {
    CountingRegistry factory;
    const auto custom = std::make_shared<StubHttpService>();
    factory.registry.setUserDefined(custom);
    factory.registry.setUserDefined(nullptr);
    const auto service = factory.registry.getInstance();
    ASSERT_TRUE(service && *service);
    EXPECT_NE(*service, custom);
    EXPECT_EQ(factory.created, 1);
}

TEST(HttpServiceFactoryImplTest, WithoutAPlatformServiceThereIsNoInstance) {
    HttpServiceFactoryImpl registry{[] { return std::shared_ptr<HttpServiceInterface>(); }};
    EXPECT_FALSE(registry.getInstance().has_value());
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

TEST_F(HttpServiceFactoryTest, WithoutAUserDefinedServiceThePlatformServiceIsInForce) {
    auto platform = HttpServiceFactory::getInstance();
    ASSERT_TRUE(platform.has_value());
    ASSERT_NE(*platform, nullptr);
    // While held, the same platform service is handed out again.
    EXPECT_EQ(HttpServiceFactory::getInstance().value(), *platform);
}

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

TEST_F(HttpServiceFactoryTest, GetInstanceAndSetUserDefinedMayRaceFromManyThreads) {
    const auto keeper = std::make_shared<StubHttpService>();
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    std::atomic<int> wrong{0};
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int round = 0; round < kRounds; ++round) {
                    if (t % 2 == 0) {
                        HttpServiceFactory::setUserDefined(round % 2 ? keeper : nullptr);
                    } else if (const auto service = HttpServiceFactory::getInstance();
                               !service || !*service) {
                        // Either the keeper or the platform default, never nothing.
                        ++wrong;
                    }
                }
            });
        }
    }
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace terrane::common
