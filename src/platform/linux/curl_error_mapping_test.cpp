#include "platform/linux/curl_error_mapping.hpp"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace terrane::common {
namespace {

// The kind of every code, and the text: curl's detail, its generic text, or an oversized head.
// The codes a test server provokes (refused and cut-off connections, timeouts, TLS to a plain
// server, redirect loops, other schemes) are mapped end to end by the HTTP service's tests; here
// are some of each kind that it cannot provoke.
TEST(CurlErrorMappingTest, EveryCurlCodeMapsToItsKindAndText) {
    const std::pair<HttpRequestErrorType, std::vector<CURLcode>> kinds[] = {
        {HttpRequestErrorType::ConnectionError,
         {CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_RESOLVE_PROXY, CURLE_SEND_ERROR,
          CURLE_RECV_ERROR, CURLE_GOT_NOTHING}},
        {HttpRequestErrorType::SSLError,
         {CURLE_PEER_FAILED_VERIFICATION, CURLE_SSL_CERTPROBLEM, CURLE_SSL_CACERT_BADFILE}},
        {HttpRequestErrorType::OtherError,
         {CURLE_URL_MALFORMAT, CURLE_WRITE_ERROR, CURLE_OUT_OF_MEMORY, CURLE_BAD_CONTENT_ENCODING}},
    };
    for (const auto& [type, codes] : kinds) {
        for (const CURLcode code : codes) {
            EXPECT_EQ(requestErrorTypeFor(code), type) << code;
        }
    }
    const struct {
        CURLcode code;
        const char* buffer;
        bool headComplete;
        std::string expected;
    } texts[] = {
        {CURLE_COULDNT_CONNECT, "Failed to connect to 127.0.0.1 port 1", true,
         "Failed to connect to 127.0.0.1 port 1"},
        {CURLE_COULDNT_CONNECT, nullptr, false, "Couldn't connect to server"},
        // Running out of memory over a head means a head too large to hold.
        {CURLE_OUT_OF_MEMORY, "Rejected 4194400 bytes header (max is 102400)!", false,
         kResponseHeaderTooLarge},
        {CURLE_OUT_OF_MEMORY, "", true, "Out of memory"},
    };
    for (const auto& row : texts) {
        EXPECT_EQ(curlErrorText(row.code, row.buffer, row.headComplete), row.expected)
            << row.code << " " << (row.buffer ? row.buffer : "null") << " " << row.headComplete;
    }
}

}  // namespace
}  // namespace terrane::common
