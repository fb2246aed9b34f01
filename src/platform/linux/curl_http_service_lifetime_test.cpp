#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "platform/linux/curl_engine.hpp"
#include "platform/linux/curl_http_service.hpp"
#include "platform/linux/curl_test_support.hpp"
#include "terrane/http/http_service_factory.hpp"

namespace terrane::common {
namespace {

// Engine threads of this process, told apart by their name: a count of all threads would also
// see the ones a sanitizer's runtime starts on its own.
std::size_t threadsOfThisProcess() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(entry.path() / "comm");
        std::string name;
        if (std::getline(comm, name) && name == CurlEngine::threadName) {
            ++count;
        }
    }
    return count;
}

TEST(CurlHttpServiceLifetimeTest, TheDefaultCurlServicesEngineLivesExactlyAsLongAsTheService) {
    HttpServiceFactory::setUserDefined(nullptr);
    const std::size_t before = threadsOfThisProcess();
    std::weak_ptr<HttpServiceInterface> old;
    {
        const auto service = HttpServiceFactory::getInstance();
        ASSERT_TRUE(service && *service);
        EXPECT_NE(dynamic_cast<CurlHttpService*>(service->get()), nullptr);
        EXPECT_EQ(*HttpServiceFactory::getInstance(), *service);
        old = *service;
        EXPECT_EQ(threadsOfThisProcess(), before + 1);
    }
    EXPECT_TRUE(old.expired());
    EXPECT_EQ(threadsOfThisProcess(), before);

    // A later caller gets a new service with a new engine, and it works.
    auto again = HttpServiceFactory::getInstance();
    ASSERT_TRUE(again);
    EXPECT_EQ(threadsOfThisProcess(), before + 1);
    test::AnswerInbox answers;
    (*again)->cancelRequest(0, answers.callback());
    EXPECT_FALSE(answers.waitFor(1));
}

TEST(CurlHttpServiceLifetimeTest, ManyServicesComeAndGoCleanly) {
    for (int round = 0; round < 20; ++round) {
        auto service = std::make_shared<CurlHttpService>();
        service->setMaxRequestsPerHost(static_cast<std::uint8_t>(round));
        test::StatusInbox statuses;
        // Fails at once, without any network: exercises a whole exchange per engine.
        service->download(DownloadOptions(HttpRequest("http://127.0.0.1:9/x"), "/nonexistent/x"),
                          statuses.callback());
        EXPECT_EQ(test::waitForFinal(statuses).state, DownloadState::Failed);
    }
}

}  // namespace
}  // namespace terrane::common
