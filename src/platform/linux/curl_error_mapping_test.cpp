#include "platform/linux/curl_error_mapping.hpp"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace terrane::common {
namespace {

// The kind of every code, and the text: curl's detail, its generic text, or an oversized head.
TEST(CurlErrorMappingTest, EveryCurlCodeMapsToItsKindAndText) {
    const std::pair<HttpRequestErrorType, std::vector<CURLcode>> kinds[] = {
        {HttpRequestErrorType::ConnectionError,
         {CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_RESOLVE_PROXY, CURLE_COULDNT_CONNECT,
          CURLE_SEND_ERROR, CURLE_RECV_ERROR, CURLE_GOT_NOTHING, CURLE_PARTIAL_FILE}},
        {HttpRequestErrorType::RequestTimedOut, {CURLE_OPERATION_TIMEDOUT}},
        {HttpRequestErrorType::SSLError,
         {CURLE_SSL_CONNECT_ERROR, CURLE_PEER_FAILED_VERIFICATION, CURLE_SSL_CERTPROBLEM,
          CURLE_SSL_CIPHER, CURLE_SSL_CACERT_BADFILE, CURLE_SSL_ISSUER_ERROR,
          CURLE_SSL_PINNEDPUBKEYNOTMATCH, CURLE_SSL_INVALIDCERTSTATUS, CURLE_SSL_CLIENTCERT,
          CURLE_USE_SSL_FAILED, CURLE_SSL_SHUTDOWN_FAILED, CURLE_SSL_CRL_BADFILE,
          CURLE_SSL_ENGINE_NOTFOUND, CURLE_SSL_ENGINE_SETFAILED, CURLE_SSL_ENGINE_INITFAILED}},
        {HttpRequestErrorType::OtherError,
         {CURLE_UNSUPPORTED_PROTOCOL, CURLE_URL_MALFORMAT, CURLE_TOO_MANY_REDIRECTS,
          CURLE_WRITE_ERROR, CURLE_OUT_OF_MEMORY, CURLE_BAD_CONTENT_ENCODING}},
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
