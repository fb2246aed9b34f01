#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "offline/region_catalogue.hpp"
#include "testing/pack_lifecycle_fixture.hpp"

namespace terrane::common {
namespace {

using ::testing::IsEmpty;

class CatalogueTest : public test::PackLifecycleTest {
  protected:
    // Lists the regions, lets `reply` answer the request, and returns what the callback got.
    optional<AvailableRegionsResult> listAndAnswer(
        const std::function<void(const test::FakeRequest&)>& reply) {
        optional<AvailableRegionsResult> heard;
        (*worker)->listAvailableRegions([&](AvailableRegionsResult result) { heard = result; });
        reply(http->nextRequest());
        settle();
        return heard;
    }
};

TEST_F(CatalogueTest, AsksForTheUsersListingAndHandsOverTheSafeRegions) {
    start();
    const auto regions = listAndAnswer([&](const test::FakeRequest& request) {
        EXPECT_EQ(request.url(), baseURL + "/offline-data/v1/alice/regions?access_token=tk");
        EXPECT_EQ(request.request().method, HttpMethod::Get);
        EXPECT_THAT(request.request().headers, IsEmpty());
        request.respond(200, R"({"../x": {"revision": 1, "configuration": {}},
            "\u001b[2J": {"revision": 1, "configuration": {}},
            "region-a": {"revision": 3, "configuration": {}, "packs": [{"domain": "maps",
                "format": 1, "url": "terrane://offline-data/a", "md5_checksum": "c", "size": 1}]}})");
    });
    ASSERT_TRUE(regions && *regions);
    ASSERT_EQ((*regions)->size(), 1u);
    // Pack addresses are handed over as the catalogue wrote them; downloads expand them.
    EXPECT_EQ((*regions)->front().mapPack->url, "terrane://offline-data/a");
    // Listing is no pack operation: no busy period, so no onIdle.
    const std::string reason = "': Region ID must be a valid directory name";
    EXPECT_EQ(joined(newLines()), log("Skipping offline region '../x" + reason) + " | " +
                                      log("Skipping offline region '\\x1B[2J" + reason));
}

// How statuses and bodies map to errors is the catalogue parser's business; the worker adds the
// transport failures and masks the access token in whatever reaches the callback.
TEST_F(CatalogueTest, EveryFailureReachesTheCallbackWithTheAccessTokenMasked) {
    const std::string token = "SECRET-TOKEN";
    const std::string masked =
        "https://example.test/offline-data/v1/alice/regions?access_token=***";
    const struct {
        std::function<void(const test::FakeRequest&)> reply;
        OfflineDataError error;
    } rows[] = {
        {[&](auto& r) { r.respond(403, "Unknown token " + token); },
         {OfflineDataErrorCode::Unauthorized, "Unknown token ***"}},
        {[&](auto& r) { r.fail(HttpRequestErrorType::ConnectionError, "Cannot reach " + r.url()); },
         {OfflineDataErrorCode::Connection, "Cannot reach " + masked}},
    };
    worker = std::make_unique<test::ManualWorker>(
        directory.path().string(), OfflineServiceOptions{"alice", token, "https://example.test"},
        OfflineServiceObservers{recorder});
    for (const auto& row : rows) {
        EXPECT_EQ(listAndAnswer(row.reply), AvailableRegionsResult(unexpected(row.error)));
    }
    optional<AvailableRegionsResult> heard;
    (*worker)->requestAvailableRegions(nullptr, [&](auto result) { heard = result; });
    EXPECT_EQ(heard, AvailableRegionsResult(unexpected(OfflineDataError{
                         OfflineDataErrorCode::Connection, "HTTP Service is not available"})));
}

TEST_F(CatalogueTest, AnEmptyCallbackAsksNothingAndALateAnswerIsDroppedWithItsCallback) {
    start();
    (*worker)->listAvailableRegions({});
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> watch = held;
    (*worker)->listAvailableRegions([held](auto) { ADD_FAILURE(); });
    held.reset();
    const auto request = http->nextRequest();
    worker.reset();
    request.respond(200, "{}");
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(http->requests().size(), 1u);
}

TEST_F(CatalogueTest, TheEndpointAndStorageRootFollowTheOptions) {
    const struct {
        optional<std::string> baseURL;
        std::string expanded;
        std::string account;  // MD5 of the effective base URL + "/alice"
    } rows[] = {
        {nullopt, "https://api.terrane.dev/offline-data/v1/p?access_token=tk",
         "f679c5724ffbcc65ff1fd51760271074"},
        {"", "https://api.terrane.dev/offline-data/v1/p?access_token=tk",
         "f679c5724ffbcc65ff1fd51760271074"},
        {"http://127.0.0.1:9", "http://127.0.0.1:9/offline-data/v1/p?access_token=tk",
         "835e62a67b71f1cbf8170a961da9fd21"},
    };
    for (const auto& row : rows) {
        worker.reset();
        worker = std::make_unique<test::ManualWorker>(
            directory.path().string(), OfflineServiceOptions{"alice", "tk", row.baseURL},
            OfflineServiceObservers{});
        EXPECT_EQ((*worker)->formatURL("terrane://offline-data/p"), row.expanded);
        EXPECT_EQ((*worker)->getRoot(), directory.path() / row.account);
    }
}

TEST_F(CatalogueTest, PackOperationsWithoutAUsablePackOnlyLogWhy) {
    const std::string missing = "Failed to retrieve metadata for ";
    auto otherFormat = region();
    otherFormat.id = "region-b";
    otherFormat.mapPack->format = 2;
    const struct {
        std::function<void()> operation;
        std::string expected;
    } rows[] = {
        {[&] { (*worker)->downloadPack(navigation, region()); },
         log(missing + "navigation pack of revision 3 of offline region 'region-a'")},
        {[&] { (*worker)->deletePack(maps, OfflineDataRegionMetadata(otherFormat)); },
         log("metadata specifies wrong format") + " | " +
             log(missing + "maps pack of revision 3 of offline region 'region-b'")},
        // Leaving touches only packs awaiting the observer: no word about the format.
        {[&] { (*worker)->removeObserver(std::make_shared<test::RecordingObserver>()); }, {}},
        {[&] {
             (*worker)->verifyPackDownload(PackKey{{"elsewhere", 4294967295u}, maps, 0});
         },
         log(missing + "maps pack of revision 4294967295 of offline region 'elsewhere'")},
    };
    start();
    for (const auto& row : rows) {
        row.operation();
        EXPECT_EQ(settled(), row.expected);
    }
}

TEST_F(CatalogueTest, PackOperationsRefuseRegionIdsThatAreNoDirectoryName) {
    using namespace std::string_literals;
    const struct { std::string id, shown; } rows[] = {{".."s, ".."s}, {"a\0b"s, "a\\x00b"s}};
    start();
    const auto before = test::treeContents(directory.path());
    for (const auto& row : rows) {
        auto hostile = region();
        hostile.id = row.id;
        (*worker)->downloadPack(maps, OfflineDataRegionMetadata(hostile));
        (*worker)->cancelPackDownload(maps, OfflineDataRegionMetadata(hostile));
        (*worker)->deletePack(maps, OfflineDataRegionMetadata(hostile));
        const std::string refusal = log("Invalid region id '" + row.shown + "'");
        EXPECT_EQ(settled(), refusal + " | " + refusal + " | " + refusal);
    }
    EXPECT_TRUE((*worker)->getRegions().empty());
    EXPECT_EQ(test::treeContents(directory.path()), before);
}

}  // namespace
}  // namespace terrane::common
