#include "platform/linux/response_head.hpp"

#include <gtest/gtest.h>

namespace terrane::common {
namespace {

using Event = ResponseHead::Event;

TEST(ResponseHeadTest, StatusLinesOfEveryHttpVersionGiveTheirCode) {
    EXPECT_EQ(statusCodeOfLine("HTTP/1.1 206 Partial Content\r\n"), 206);
    EXPECT_EQ(statusCodeOfLine("HTTP/2 404 \r\n"), 404);
    EXPECT_EQ(statusCodeOfLine("HTTP/1.0 200\r\n"), 200);
    EXPECT_EQ(statusCodeOfLine("Content-Type: text/plain\r\n"), nullopt);
    EXPECT_EQ(statusCodeOfLine("HTTP/1.1 20 Short\r\n"), nullopt);
}

TEST(ResponseHeadTest, HeaderNamesAreLowerCasedAndRepeatedNamesJoined) {
    ResponseHead head;
    EXPECT_EQ(head.feed("HTTP/1.1 200 OK\r\n"), Event::None);
    head.feed("Content-Type: text/plain\r\n");
    head.feed("ETag:  \"abc\" \r\n");
    head.feed("Vary: Accept\r\n");
    head.feed("vary: Origin\r\n");
    head.feed("X-Empty:\r\n");
    EXPECT_EQ(head.feed("\r\n"), Event::Final);
    EXPECT_TRUE(head.isComplete());
    EXPECT_EQ(head.code(), 200);
    EXPECT_EQ(head.headers(), (HttpHeaders{{"content-type", "text/plain"},
                                           {"etag", "\"abc\""},
                                           {"vary", "Accept, Origin"},
                                           {"x-empty", ""}}));
}

TEST(ResponseHeadTest, InterimAnswersAndFollowedRedirectsAreNotTheAnswer) {
    ResponseHead head;
    head.feed("HTTP/1.1 100 Continue\r\n");
    EXPECT_EQ(head.feed("\r\n"), Event::Interim);
    head.feed("HTTP/1.1 302 Found\r\n");
    head.feed("Location: /elsewhere\r\n");
    head.feed("Set-Cookie: a=1\r\n");
    EXPECT_EQ(head.feed("\r\n"), Event::Interim);
    EXPECT_FALSE(head.isComplete());
    head.feed("HTTP/1.1 200 OK\r\n");
    head.feed("Content-Length: 3\r\n");
    EXPECT_EQ(head.feed("\r\n"), Event::Final);
    EXPECT_EQ(head.headers(), (HttpHeaders{{"content-length", "3"}}));
}

TEST(ResponseHeadTest, ARedirectWithoutLocationIsTheAnswer) {
    ResponseHead head;
    head.feed("HTTP/1.1 304 Not Modified\r\n");
    EXPECT_EQ(head.feed("\r\n"), Event::Final);
    EXPECT_EQ(head.code(), 304);
}

TEST(ResponseHeadTest, TrailersAfterTheFinalHeadAreIgnored) {
    ResponseHead head;
    head.feed("HTTP/1.1 200 OK\r\n");
    head.feed("\r\n");
    EXPECT_EQ(head.feed("X-Checksum: 1234\r\n"), Event::None);
    EXPECT_EQ(head.feed("\r\n"), Event::None);
    EXPECT_TRUE(head.headers().empty());
    head.reset();
    EXPECT_FALSE(head.isComplete());
    EXPECT_EQ(head.code(), 0);
}

TEST(ResponseHeadTest, LinesWithoutANameOrColonAreSkipped) {
    ResponseHead head;
    head.feed("HTTP/1.1 200 OK\r\n");
    head.feed("garbage\r\n");
    head.feed(": no name\r\n");
    head.feed("\r\n");
    EXPECT_TRUE(head.headers().empty());
}

}  // namespace
}  // namespace terrane::common
