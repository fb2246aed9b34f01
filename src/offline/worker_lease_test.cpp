#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "testing/pack_lifecycle_fixture.hpp"
#include "util/file_io.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
namespace fs = std::filesystem;

const std::string etag = "\"v1\"";

class LeaseTest : public test::PackLifecycleTest {
  protected:
    // The conditional request the worker sent last, checked for what both kinds share.
    test::FakeRequest conditionalRequest() {
        auto request = http->nextRequest();
        EXPECT_EQ(request.method(), HttpMethod::Head);
        EXPECT_EQ(request.url(), packURL);
        EXPECT_EQ(request.headers(),
                  (HttpHeaders{{"If-None-Match", etag}, {"Accept-Encoding", "identity"}}));
        EXPECT_EQ(request.request().uaComponents, UAComponents{});
        return request;
    }

    std::string extensionFailed(const std::string& reason) const {
        return log(
            "Failed to extend expiration time of maps pack of revision 3 of offline region "
            "'region-a': " +
            reason);
    }
};

// ---- Lease extension, started at start-up ---------------------------------------------------

class LeaseExtensionTest : public LeaseTest {
  protected:
    // An Available pack whose day-long lease has an hour left.
    void SetUp() override {
        LeaseTest::SetUp();
        storeAvailable(leaseEnd, etag, 86400);
        start();
        EXPECT_THAT(newLines(),
                    ElementsAre(line("onAvailable", packFile(), content.size()), "onInitialized"));
    }

    const util::TimePoint leaseEnd = fromNow(1h);
};

TEST_F(LeaseExtensionTest, ANotModifiedAnswerWithTheSameTagRenewsTheLeaseOnDisk) {
    auto request = conditionalRequest();
    const auto before = fromNow(0ms);
    request.respond(304, "", {{"etag", etag}, {"cache-control", "max-age=86400"}});
    settle();
    // No state change to tell; the outstanding request is settled.
    EXPECT_THAT(newLines(), ElementsAre("onIdle"));
    const auto stored = storedHeaders();
    EXPECT_GE(stored.expires, before + 24h);
    EXPECT_EQ(stored.max_age, 86400);
    EXPECT_EQ(stored.etag, etag);
    EXPECT_TRUE(stored.verified);
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Available);
}

TEST_F(LeaseExtensionTest, AChangedEntityTagIsOnlyLoggedAndTheOldLeaseStays) {
    conditionalRequest().respond(200, "", {{"etag", "\"v2\""}, {"cache-control", "max-age=9"}});
    settle();
    EXPECT_THAT(
        newLines(),
        ElementsAre(extensionFailed("The offline pack changed and needs to be redownloaded"),
                    "onIdle"));
    EXPECT_EQ(storedHeaders().expires, leaseEnd);
    EXPECT_EQ(holder().headers.expires, leaseEnd);
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Available);
}

TEST_F(LeaseTest, ANotModifiedAnswerMeansUnchangedAndFullAnswersCompareTagsWeakly) {
    const std::string changed = "The offline pack changed and needs to be redownloaded";
    const struct {
        std::int64_t code;
        optional<std::string> tag;
        bool unchanged;
    } rows[] = {
        {304, etag, true},        {304, nullopt, true},        {304, "W/" + etag, true},
        {304, "\"other\"", true}, {200, "W/" + etag, true},    {204, etag, true},
        {200, nullopt, false},    {200, "\"v1-gzip\"", false}, {200, "W/\"v2\"", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.code) + " " + row.tag.value_or("(no tag)"));
        storeAvailable(fromNow(1h), etag, 86400);
        start();
        newLines();
        HttpHeaders headers{{"cache-control", "max-age=86400"}};
        if (row.tag) {
            headers.emplace("etag", *row.tag);
        }
        conditionalRequest().respond(row.code, "", headers);
        settle();
        if (row.unchanged) {
            EXPECT_THAT(newLines(), ElementsAre("onIdle"));
            EXPECT_GE(storedHeaders().expires, fromNow(23h));
        } else {
            EXPECT_THAT(newLines(), ElementsAre(extensionFailed(changed), "onIdle"));
        }
        worker.reset();
    }
}

TEST_F(LeaseExtensionTest, HttpErrorsAndTransportFailuresAreOnlyLogged) {
    conditionalRequest().respond(500, R"({"message": "maintenance"})");
    settle();
    EXPECT_THAT(newLines(), ElementsAre(extensionFailed("HTTP Error 500: maintenance"), "onIdle"));
    EXPECT_EQ(storedHeaders().expires, leaseEnd);

    // The next start tries again, and this time the network is gone.
    worker.reset();
    start();
    newLines();
    conditionalRequest().fail(HttpRequestErrorType::ConnectionError, "Could not connect");
    settle();
    EXPECT_THAT(newLines(), ElementsAre(extensionFailed("Could not connect"), "onIdle"));
}

TEST_F(LeaseExtensionTest, AnAnswerForAPackDeletedMeanwhileIsDroppedButSettled) {
    auto request = conditionalRequest();
    deletePack();
    settle();
    for (const auto& acknowledge : recorder->takeAcknowledgements()) {
        acknowledge();
    }
    settle();
    EXPECT_THAT(newLines(), ElementsAre(line("onDeleting", packFile(), content.size()), deleted()));

    request.respond(304, "", {{"etag", etag}, {"cache-control", "max-age=86400"}});
    settle();
    EXPECT_THAT(newLines(), ElementsAre("onIdle"));
    EXPECT_FALSE(fs::exists(headerFile()));
}

TEST_F(LeaseTest, APackEarlyInItsLeaseIsNotRenewed) {
    storeAvailable(fromNow(23h), etag, 86400);
    start();
    EXPECT_THAT(newLines(), ElementsAre(line("onAvailable", packFile(), content.size()),
                                        "onInitialized", "onIdle"));
    EXPECT_THAT(http->requests(), IsEmpty());
}

TEST_F(LeaseTest, APackWithoutEntityTagIsNotRenewed) {
    storeAvailable(fromNow(1h), "", 86400);
    start();
    EXPECT_THAT(newLines(), ElementsAre(line("onAvailable", packFile(), content.size()),
                                        "onInitialized", "onIdle"));
    EXPECT_THAT(http->requests(), IsEmpty());
}

// ---- Re-authorisation of an Expired pack ----------------------------------------------------

class ReauthorisationTest : public LeaseTest {
  protected:
    // A pack whose lease ran out an hour ago, with its file and entity tag.
    void SetUp() override {
        LeaseTest::SetUp();
        storeAvailable(fromNow(-1h), etag, 3600);
        start();
        EXPECT_THAT(newLines(), ElementsAre(line("onExpired", packFile(), content.size()),
                                            "onInitialized", "onIdle"));
    }

    std::string expired(const std::string& error = {}) const {
        return line("onExpired", packFile(), content.size(), error);
    }

    // Asks for the pack; it goes Downloading while the server is asked.
    test::FakeRequest reauthorise() {
        downloadPack();
        settle();
        EXPECT_THAT(newLines(), ElementsAre(line("onDownloading", packFile(), content.size())));
        EXPECT_THAT(http->downloads(), IsEmpty());
        return conditionalRequest();
    }
};

TEST_F(ReauthorisationTest, TheSameEntityTagWithAFreshLeaseMakesThePackAvailable) {
    auto request = reauthorise();
    const auto before = fromNow(0ms);
    request.respond(304, "", {{"ETag", etag}, {"Cache-Control", "max-age=3600"}});
    settle();
    EXPECT_THAT(newLines(), ElementsAre(line("onAvailable", packFile(), content.size()), "onIdle"));
    EXPECT_GE(storedHeaders().expires, before + 1h);
    EXPECT_EQ(base::io::readFile(packFile()), content);
}

TEST_F(ReauthorisationTest, AfterAFailedAnswerRemovedTheFileTheNextAskDownloadsInFull) {
    reauthorise().respond(401, R"({"message": "Invalid Token"})");
    settle();
    EXPECT_THAT(newLines(), ElementsAre(expired("Unauthorized, message=Invalid Token"), "onIdle"));
    EXPECT_FALSE(fs::exists(packFile()));

    downloadPack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(line("onPending", downloadFile(), 0)));
    EXPECT_THAT(http->requests(), SizeIs(1u));
    EXPECT_EQ(http->nextDownload().request().method, HttpMethod::Get);
}

TEST_F(ReauthorisationTest, AChangedEntityTagLeavesThePackExpiredAsCorrupt) {
    reauthorise().respond(200, "", {{"etag", "\"v2\""}, {"cache-control", "max-age=3600"}});
    settle();
    EXPECT_THAT(newLines(),
                ElementsAre(expired("Corrupt, message=The offline pack changed and needs to be "
                                    "redownloaded"),
                            "onIdle"));
    EXPECT_FALSE(fs::exists(packFile()));
    // The stored lease is left as it was.
    EXPECT_EQ(holder().headers.etag, etag);
    EXPECT_TRUE(holder().isExpired());
}

TEST_F(ReauthorisationTest, ATransportFailureLeavesThePackExpiredWithAConnectionError) {
    reauthorise().fail(HttpRequestErrorType::RequestTimedOut, "The request timed out.");
    settle();
    EXPECT_THAT(newLines(),
                ElementsAre(expired("Connection, message=The request timed out."), "onIdle"));
    EXPECT_FALSE(fs::exists(packFile()));
}

TEST_F(ReauthorisationTest, AFileThatCannotBeRemovedIsLogged) {
    fs::remove(packFile());
    fs::create_directories(packFile() / "occupied");
    reauthorise().respond(404, "gone");
    settle();
    EXPECT_THAT(newLines(),
                ElementsAre(log("Failed to delete maps pack of revision 3 of offline region "
                                "'region-a': Directory not empty"),
                            expired("NotFound, message=gone"), "onIdle"));
}

TEST_F(ReauthorisationTest, AnAnswerAfterTheCancellationIsDroppedAndTheFileStays) {
    auto request = reauthorise();
    cancelPackDownload();
    settle();
    // The lease is still over, so the cancelled pack is Expired again, without error.
    EXPECT_THAT(newLines(), ElementsAre(expired(), "onIdle"));
    ASSERT_THAT(http->cancellations(), SizeIs(1u));
    EXPECT_EQ(http->cancellations()[0].id(), request.id());
    // The fake answered the cancelled request with RequestCancelled; it changed nothing.
    EXPECT_TRUE(request.isAnswered());
    EXPECT_EQ(base::io::readFile(packFile()), content);
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Expired);
}

TEST_F(ReauthorisationTest, AnAnswerAfterTheDeletionIsDropped) {
    auto request = reauthorise();
    http->answerCancellationsManually();
    deletePack();
    settle();
    EXPECT_THAT(newLines(), ElementsAre(deleted()));
    http->nextCancellation().answer(true);
    settle();
    EXPECT_THAT(newLines(), ElementsAre("onIdle"));
    EXPECT_FALSE(fs::exists(packFile()));
    EXPECT_FALSE(fs::exists(headerFile()));
    EXPECT_EQ(holder().status(), OfflineDataPackStatus::Deleted);
}

}  // namespace
}  // namespace terrane::common
