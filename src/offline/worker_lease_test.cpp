#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include "testing/pack_lifecycle_fixture.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using ::testing::IsEmpty;
namespace fs = std::filesystem;

const std::string etag = "\"v1\"";
const std::string changed = "The offline pack changed and needs to be redownloaded";

class LeaseTest : public test::PackLifecycleTest {
  protected:
    // The conditional request the worker sent last, checked for what both kinds share.
    test::FakeRequest conditionalRequest() {
        auto request = http->nextRequest();
        EXPECT_EQ(request.request().method, HttpMethod::Head);
        EXPECT_EQ(request.url(), packURL);
        EXPECT_EQ(request.request().headers,
                  (HttpHeaders{{"Accept-Encoding", "identity"}, {"If-None-Match", etag}}));
        return request;
    }
    // Asks for an Expired pack; it goes Downloading while the server is asked.
    test::FakeRequest reauthorise() {
        downloadPack();
        EXPECT_EQ(settled(), "onDownloading maps/1 bytes=38");
        EXPECT_THAT(http->downloads(), IsEmpty());
        return conditionalRequest();
    }
    const std::string expired = "onExpired maps/1 bytes=38";
};

// Both kinds of conditional request, the renewal of a lease at start-up and the re-authorisation
// of an expired pack, take the same answers. The same entity with a fresh lease renews the pack;
// anything else fails the renewal with a log line, and the re-authorisation with an error that
// leaves the pack Expired without its file (but with its tag, to ask again).
TEST_F(LeaseTest, EachAnswerToAConditionalRequestAndWhatMeetsItMeanwhile) {
    // A renewal answer for a pack deleted meanwhile is dropped but settled. A file that cannot be
    // removed after a refused re-authorisation is logged. A re-authorisation is cancelled like a
    // download, and the pack, its lease still over, is Expired again without error.
    storeAvailable(fromNow(1h), etag, 86400);
    EXPECT_EQ(start(), "onAvailable maps/1 bytes=38 | onInitialized");
    auto request = conditionalRequest();
    deletePack();
    settle();
    acknowledgeAll(*recorder);
    request.respond(304, "", {{"etag", etag}, {"cache-control", "max-age=86400"}});
    EXPECT_EQ(settled(), "onDeleting maps/1 bytes=38 | onDeleted maps region-a/3 | onIdle");
    EXPECT_FALSE(fs::exists(headerFile()));

    startExpired(etag);
    fs::remove(packFile());
    fs::create_directories(packFile() / "occupied");
    reauthorise().respond(404, "gone");
    EXPECT_EQ(settled(), log("Failed to delete maps pack of revision 3 of offline region "
                             "'region-a': Directory not empty") +
                             " | " + expired + " error=NotFound, message=gone | onIdle");

    fs::remove_all(tree.root());
    startExpired(etag);
    request = reauthorise();
    cancelPackDownload();
    EXPECT_EQ(settled(), expired + " | onIdle");
    EXPECT_EQ(http->nextCancellation().id(), request.id());
    EXPECT_EQ(base::io::readFile(packFile()), content);

    const std::string masked = baseURL + "/offline-data/v1/maps.bin?access_token=***";
    const std::string extension =
        log("Failed to extend expiration time of maps pack of revision 3 of offline region "
            "'region-a': ");
    const struct {
        std::int64_t code;  // 0: a transport failure
        HttpHeaders headers;
        std::string failure, error;  // empty: renewed
    } rows[] = {
        // A 304 is the server's word that the tag matches, whatever tag it repeats.
        {304, {{"etag", "\"other\""}, {"cache-control", "max-age=86400"}}, "", ""},
        {200, {{"etag", "W/" + etag}, {"cache-control", "max-age=86400"}}, "", ""},
        {200, {{"etag", "W/\"v2\""}}, changed, "Corrupt, message=" + changed},
        {0, {}, "at " + masked, "Connection, message=at " + masked},
    };
    const auto answer = [](const auto& row, const test::FakeRequest& request) {
        if (row.code == 0) {
            return request.fail(HttpRequestErrorType::ConnectionError, "at " + request.url());
        }
        request.respond(row.code, "", row.headers);
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.error);
        storeAvailable(fromNow(1h), etag);
        start();
        answer(row, conditionalRequest());
        EXPECT_EQ(settled(),
                  row.failure.empty() ? "onIdle" : extension + row.failure + " | onIdle");
        EXPECT_EQ(storedHeaders().expires > fromNow(23h), row.failure.empty());

        startExpired(etag);
        answer(row, reauthorise());
        EXPECT_EQ(settled(), (row.error.empty() ? "onAvailable maps/1 bytes=38"
                                                : expired + " error=" + row.error) +
                                 " | onIdle");
        EXPECT_EQ(storedHeaders().expires > fromNow(23h), row.error.empty());
        EXPECT_EQ(fs::exists(packFile()), row.error.empty());
    }
    // With the file gone, or without a tag to ask with, the next ask downloads in full.
    downloadInFlight();
    startExpired("");
    downloadInFlight();
}

}  // namespace
}  // namespace terrane::common
