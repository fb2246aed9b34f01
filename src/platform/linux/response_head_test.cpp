#include "platform/linux/response_head.hpp"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace terrane::common {
namespace {

using Event = ResponseHead::Event;

TEST(ResponseHeadTest, TheFinalHeadCarriesLowerCasedHeadersWithRepeatedNamesJoined) {
    const struct {
        // Lines fed, separated by "|".
        std::string head;
        // The event of each blank line (N none, I interim, F final), or T when it grew too large.
        std::string events;
        std::int64_t code;
        HttpHeaders headers;
    } rows[] = {
        {"HTTP/1.1 200 OK|Content-Type: text/plain|ETag:  \"abc\" |Vary: Accept|vary: Origin|"
         "X-Empty:|garbage|: no name|",
         "F",
         200,
         {{"content-type", "text/plain"},
          {"etag", "\"abc\""},
          {"vary", "Accept, Origin"},
          {"x-empty", ""}}},
        // Interim answers and followed redirects come before the answer.
        {"HTTP/1.1 100 Continue||HTTP/1.1 302 Found|Location: /x|Set-Cookie: a=1||"
         "HTTP/1.1 200 OK|Content-Length: 3|",
         "IIF",
         200,
         {{"content-length", "3"}}},
        {"HTTP/1.1 304 Not Modified|", "F", 304, {}},  // a redirect without a location
        {"HTTP/1.1 200 OK||X-Trailer: 1|", "FN", 200, {}},
        {"|HTTP/1.1 200 OK|", "NF", 200, {}},
        {"HTTP/2 404 |", "F", 404, {}},
        {"HTTP/1.1|HTTP/1.1 20 Short|", "N", 0, {}},  // no status lines
        {"HTTP/1.1 200 OK|X-Big: " + std::string(ResponseHead::kMaxHeadBytes, 'x'), "T", 200, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.head.substr(0, 80));
        ResponseHead head;
        std::string events;
        std::size_t at = 0;
        for (std::size_t end = 0; end != std::string::npos; at = end + 1) {
            end = row.head.find('|', at);
            const auto line = row.head.substr(at, end - at);
            const auto event = head.feed(line + "\r\n");
            if (event == Event::TooLarge || line.empty()) {
                events += "NIFT"[static_cast<int>(event)];
            }
        }
        EXPECT_EQ(std::tuple(events, head.isComplete(), head.code(), head.headers()),
                  std::tuple(row.events, row.events.find('F') != std::string::npos, row.code,
                             row.headers));
    }
}

}  // namespace
}  // namespace terrane::common
