#include "terrane/http/http_service_factory.hpp"

#include <gtest/gtest.h>

#include <memory>

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

TEST(HttpServiceFactoryImplTest, ADefaultIsSharedWhileHeldAndAUserDefinedOneOnlyWhileItLives) {
    // The platform default is a stub, counted.
    int created = 0;
    HttpServiceFactoryImpl registry{[&created]() -> std::shared_ptr<HttpServiceInterface> {
        ++created;
        return std::make_shared<StubHttpService>();
    }};
    {
        const auto first = registry.getInstance();
        ASSERT_TRUE(first.value_or(nullptr));
        EXPECT_EQ(registry.getInstance(), first);
    }
    // Released by everybody, so made afresh: the registry itself does not keep it alive.
    ASSERT_TRUE(registry.getInstance().value_or(nullptr));
    EXPECT_EQ(created, 2);

    auto custom = std::make_shared<StubHttpService>();
    registry.setUserDefined(custom);
    EXPECT_EQ(registry.getInstance(), custom);
    custom.reset();
    ASSERT_TRUE(registry.getInstance().value_or(nullptr));
    EXPECT_EQ(created, 3);

    EXPECT_FALSE(HttpServiceFactoryImpl([] { return nullptr; }).getInstance().has_value());
    EXPECT_FALSE(HttpServiceFactoryImpl(nullptr).getInstance().has_value());
}

// The process-wide factory of this build has no platform service of this kind, so only the
// service the application supplies is a stub.
TEST(HttpServiceFactoryTest, TheUserDefinedServiceIsInForceUntilItsLastHolderLetsGo) {
    auto custom = std::make_shared<StubHttpService>();
    HttpServiceFactory::setUserDefined(custom);
    auto held = HttpServiceFactory::getInstance();
    EXPECT_EQ(held, custom);
    custom.reset();
    EXPECT_EQ(HttpServiceFactory::getInstance(), held);
    held.reset();
    const auto fallback = HttpServiceFactory::getInstance();
    EXPECT_EQ(dynamic_cast<StubHttpService*>(fallback.value_or(nullptr).get()), nullptr);
}

}  // namespace
}  // namespace terrane::common
