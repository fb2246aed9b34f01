#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <thread>
#include <vector>

#include "terrane/http/download.hpp"
#include "terrane/http/http_request.hpp"
#include "terrane/http/http_response.hpp"
#include "terrane/http/request_id.hpp"
#include "terrane/http/ua_components.hpp"

namespace terrane::common {
namespace {

// The counter is process-wide, so "the first id is 1" can only be seen in a process that has drawn
// nothing yet. The threadsafe death-test style re-executes this binary with only this test
// selected, which gives exactly that. It must stay the first thing the test does.
TEST(RequestIdTest, TheFirstIdOfAProcessIsOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(nextHttpRequestId() == 1 && nextHttpRequestId() == 2 ? 0 : 1),
                ::testing::ExitedWithCode(0), "");
}

TEST(RequestIdTest, IdsDrawnFromManyThreadsAreUniqueAndIncreasing) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 2000;
    std::vector<std::vector<std::uint64_t>> drawn(kThreads);
    {
        std::vector<std::jthread> threads;
        for (auto& ids : drawn) {
            threads.emplace_back([&ids] {
                for (int i = 0; i < kPerThread; ++i) {
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
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
    EXPECT_NE(all.front(), 0u);
    // Nobody else draws in this process meanwhile, so the block is gap-free.
    EXPECT_EQ(all.back() - all.front() + 1, all.size());
}

TEST(HttpRecordsTest, EnumerationsKeepTheirContractValues) {
    EXPECT_EQ(static_cast<int>(HttpMethod::Get), 0);
    EXPECT_EQ(static_cast<int>(HttpMethod::Head), 1);
    EXPECT_EQ(static_cast<int>(HttpMethod::Post), 2);
    EXPECT_EQ(static_cast<int>(HttpRequestErrorType::ConnectionError), 0);
    EXPECT_EQ(static_cast<int>(HttpRequestErrorType::SSLError), 1);
    EXPECT_EQ(static_cast<int>(HttpRequestErrorType::RequestCancelled), 2);
    EXPECT_EQ(static_cast<int>(HttpRequestErrorType::RequestTimedOut), 3);
    EXPECT_EQ(static_cast<int>(HttpRequestErrorType::OtherError), 5);
    EXPECT_EQ(static_cast<int>(DownloadState::Pending), 0);
    EXPECT_EQ(static_cast<int>(DownloadState::Downloading), 1);
    EXPECT_EQ(static_cast<int>(DownloadState::Failed), 2);
    EXPECT_EQ(static_cast<int>(DownloadState::Finished), 3);
    EXPECT_EQ(static_cast<int>(DownloadErrorCode::FileSystemError), 0);
    EXPECT_EQ(static_cast<int>(DownloadErrorCode::NetworkError), 1);
}

TEST(HttpRecordsTest, EveryUserAgentComponentDefaultsToUnknown) {
    const UAComponents components;
    for (const auto* component :
         {&components.appNameComponent, &components.appVersionComponent,
          &components.appIdentifierComponent, &components.appBuildNumberComponent,
          &components.osNameComponent, &components.osVersionComponent, &components.sdkNameComponent,
          &components.sdkVersionComponent, &components.sdkIdentifierComponent,
          &components.sdkBuildNumberComponent}) {
        EXPECT_EQ(*component, "unknown");
    }
}

TEST(HttpRecordsTest, TheShortRequestIsAPlainGetWithoutTimeout) {
    const HttpRequest request("https://example.test/a", {{"Accept", "*/*"}}, {}, {1, 2});
    EXPECT_EQ(request.method, HttpMethod::Get);
    EXPECT_EQ(request.url, "https://example.test/a");
    EXPECT_EQ(request.headers, (HttpHeaders{{"Accept", "*/*"}}));
    EXPECT_FALSE(request.keepCompression);
    EXPECT_EQ(request.timeout, 0u);
    EXPECT_EQ(request.uaComponents, UAComponents{});
    EXPECT_EQ(request.body, (HttpBody{1, 2}));
}

TEST(HttpRecordsTest, ShortDownloadRecordsLeaveTheRestAtTheDefaults) {
    const DownloadOptions options(HttpRequest("https://example.test/pack"), "/tmp/pack.tmp");
    EXPECT_FALSE(options.resume);

    const DownloadStatus status(DownloadError{DownloadErrorCode::NetworkError, "lost"}, 42u,
                                options, HttpResponseData{{}, 206, {}});
    EXPECT_EQ(status.downloadId, 0u);
    EXPECT_EQ(status.state, DownloadState::Pending);
    EXPECT_EQ(status.receivedBytes, 0u);
    EXPECT_EQ(status.totalBytes, 42u);
    EXPECT_EQ(status.error, (DownloadError{DownloadErrorCode::NetworkError, "lost"}));
    EXPECT_EQ(status.downloadOptions, options);
    ASSERT_TRUE(status.httpResult && status.httpResult->has_value());
    EXPECT_EQ((*status.httpResult)->code, 206);

    const DownloadStatus fresh;
    EXPECT_EQ(fresh.state, DownloadState::Pending);
    EXPECT_FALSE(fresh.error || fresh.totalBytes || fresh.httpResult);
}

}  // namespace
}  // namespace terrane::common
