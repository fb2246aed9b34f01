#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "terrane/client/offline_client.hpp"
#include "terrane/util/md5.hpp"
#include "testing/http_test_server.hpp"
#include "testing/storage_tree.hpp"
#include "util/file_io.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;

// The whole road over the platform's HTTP service and a real server on 127.0.0.1.
TEST(OfflineClientEndToEnd, ADownloadSurvivesTwoDroppedConnectionsWithoutHelp) {
    test::HttpTestServer server;
    const test::TestFile file{
        .content = test::testContent(256 * 1024), .dropAfter = 64 * 1024, .faultyResponses = 2};
    server.serve("/packs/harbour-maps.bin", file);

    OfflineDataRegionMetadata region;
    region.id = "harbour";
    region.revision = 2;
    region.mapPack =
        OfflineDataPackMetadata{server.url("/packs/harbour-maps.bin"),
                                util::md5String(file.content), file.content.size(), 1, ""};

    test::TemporaryDirectory storage;
    std::uint32_t attempts = 0;
    std::uint64_t resumedFrom = 0;
    {
        OfflineClient client(storage.path().string(), {"alice", "tk", server.url("")});
        PackDownloadOptions options;
        options.retry.initialDelay = 10ms;
        // Runs on the client's thread only, so the counters need no lock.
        options.progress = [&](const PackProgress& progress) {
            attempts = progress.attempt;
            resumedFrom = std::max(resumedFrom, progress.resumedFrom);
        };
        const auto retried = client.download(region, {}, options);
        ASSERT_TRUE(retried.wait_for(60s));
        const auto& outcome = retried.result().at(0).outcome;
        ASSERT_TRUE(outcome) << outcome.error();
        EXPECT_EQ(base::io::readFile(outcome->path).value_or(""), file.content);
    }
    EXPECT_EQ(attempts, 3u);
    EXPECT_GT(resumedFrom, 0u) << "the retries resume the partial file";
    EXPECT_EQ(server.requestsFor("/packs/harbour-maps.bin").size(), 3u);
}

}  // namespace
}  // namespace terrane::common
