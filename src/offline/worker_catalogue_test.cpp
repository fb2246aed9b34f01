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

TEST_F(CatalogueTest, ListingHandsOverTheSafeRegionsOrAFailureWithTheAccessTokenMasked) {
    start();
    const auto regions = listAndAnswer([&](const test::FakeRequest& request) {
        EXPECT_EQ(request.url(), baseURL + "/offline-data/v1/alice/regions?access_token=tk");
        request.respond(200, R"({"../x": {"revision": 1, "configuration": {}},
            "\u001b[2J": {"revision": 1, "configuration": {}},
            "region-a": {"revision": 3, "configuration": {}, "packs": [{"domain": "maps",
                "format": 1, "url": "terrane://offline-data/a", "md5_checksum": "c", "size": 1}]}})");
    });
    ASSERT_TRUE(regions && *regions);
    EXPECT_EQ((*regions)->size(), 1u);
    // Listing is no pack operation: no busy period, so no onIdle.
    const std::string reason = "': Region ID must be a valid directory name";
    EXPECT_EQ(joined(newLines()), log("Skipping offline region '../x" + reason) + " | " +
                                      log("Skipping offline region '\\x1B[2J" + reason));

    // How statuses and bodies map to errors is the catalogue parser's business; the worker adds
    // the transport failures and masks the access token in whatever reaches the callback.
    const std::string masked = baseURL + "/offline-data/v1/alice/regions?access_token=***";
    const struct {
        std::function<void(const test::FakeRequest&)> reply;
        OfflineDataError error;
    } rows[] = {
        {[&](auto& r) { r.respond(403, "Unknown token " + options.accessToken); },
         {OfflineDataErrorCode::Unauthorized, "Unknown token ***"}},
        {[&](auto& r) { r.fail(HttpRequestErrorType::ConnectionError, "Cannot reach " + r.url()); },
         {OfflineDataErrorCode::Connection, "Cannot reach " + masked}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(listAndAnswer(row.reply), AvailableRegionsResult(unexpected(row.error)));
    }
    optional<AvailableRegionsResult> heard;
    (*worker)->requestAvailableRegions(nullptr, [&](auto result) { heard = result; });
    EXPECT_EQ(heard, AvailableRegionsResult(unexpected(OfflineDataError{
                         OfflineDataErrorCode::Connection, "HTTP Service is not available"})));
}

// Without a base URL, or with an empty one, the default endpoint serves, and it names the storage
// root: the MD5 of its URL + "/alice".
TEST_F(CatalogueTest, WithoutABaseURLTheDefaultEndpointServesAndNamesTheStorageRoot) {
    for (const auto& baseURL : {optional<std::string>(), optional<std::string>("")}) {
        worker.reset();
        worker = std::make_unique<test::ManualWorker>(directory.path().string(),
                                                      OfflineServiceOptions{"alice", "tk", baseURL},
                                                      OfflineServiceObservers{});
        EXPECT_EQ((*worker)->formatURL("terrane://offline-data/p"),
                  "https://api.terrane.dev/offline-data/v1/p?access_token=tk");
        EXPECT_EQ((*worker)->getRoot(), directory.path() / "f679c5724ffbcc65ff1fd51760271074");
    }
}

TEST_F(CatalogueTest, PackOperationsWithoutAUsablePackOnlyLogWhy) {
    const std::string missing = "Failed to retrieve metadata for ";
    auto otherFormat = region();
    otherFormat.id = "region-b";
    otherFormat.mapPack->format = 2;
    auto hostile = region();
    hostile.id = std::string("a\0b", 3);
    auto zero = region();
    zero.revision = 0;
    const struct {
        std::function<void()> operation;
        std::string expected;
    } rows[] = {
        {[&] { (*worker)->downloadPack(navigation, region()); },
         log(missing + "navigation pack of revision 3 of offline region 'region-a'")},
        {[&] { (*worker)->deletePack(maps, OfflineDataRegionMetadata(otherFormat)); },
         log("metadata specifies wrong format") + " | " +
             log(missing + "maps pack of revision 3 of offline region 'region-b'")},
        {[&] {
             (*worker)->verifyPackDownload(PackKey{{"elsewhere", 4294967295u}, maps, 0});
         },
         log(missing + "maps pack of revision 4294967295 of offline region 'elsewhere'")},
        // Refused before anything is stored: a region id that is no directory name, and a
        // revision that no directory can be named by.
        {[&] { (*worker)->downloadPack(maps, OfflineDataRegionMetadata(hostile)); },
         log("Invalid region id 'a\\x00b'")},
        {[&] { (*worker)->downloadPack(maps, OfflineDataRegionMetadata(zero)); },
         "onErrored maps region-a/0 path= bytes=0 error=InvalidResponse, message=Revision 0 of "
         "offline region 'region-a' cannot be stored: revisions are numbered from 1 | onIdle"},
    };
    start();
    for (const auto& row : rows) {
        row.operation();
        EXPECT_EQ(settled(), row.expected);
    }
}

}  // namespace
}  // namespace terrane::common
