#include "platform/linux/curl_error_mapping.hpp"

#include <gtest/gtest.h>

namespace terrane::common {
namespace {

TEST(CurlErrorMappingTest, LostOrImpossibleConnectionsAreConnectionErrors) {
    for (const CURLcode code :
         {CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_RESOLVE_PROXY, CURLE_COULDNT_CONNECT,
          CURLE_SEND_ERROR, CURLE_RECV_ERROR, CURLE_GOT_NOTHING, CURLE_PARTIAL_FILE}) {
        EXPECT_EQ(requestErrorTypeFor(code), HttpRequestErrorType::ConnectionError) << code;
    }
}

TEST(CurlErrorMappingTest, TimeoutsAreTimeouts) {
    EXPECT_EQ(requestErrorTypeFor(CURLE_OPERATION_TIMEDOUT), HttpRequestErrorType::RequestTimedOut);
}

TEST(CurlErrorMappingTest, EveryTlsAndCertificateFailureIsAnSslError) {
    for (const CURLcode code :
         {CURLE_SSL_CONNECT_ERROR, CURLE_PEER_FAILED_VERIFICATION, CURLE_SSL_CERTPROBLEM,
          CURLE_SSL_CIPHER, CURLE_SSL_CACERT_BADFILE, CURLE_SSL_ISSUER_ERROR,
          CURLE_SSL_PINNEDPUBKEYNOTMATCH, CURLE_SSL_INVALIDCERTSTATUS, CURLE_SSL_CLIENTCERT,
          CURLE_USE_SSL_FAILED, CURLE_SSL_SHUTDOWN_FAILED, CURLE_SSL_CRL_BADFILE,
          CURLE_SSL_ENGINE_NOTFOUND, CURLE_SSL_ENGINE_SETFAILED, CURLE_SSL_ENGINE_INITFAILED}) {
        EXPECT_EQ(requestErrorTypeFor(code), HttpRequestErrorType::SSLError) << code;
    }
}

TEST(CurlErrorMappingTest, EverythingElseIsOtherError) {
    for (const CURLcode code :
         {CURLE_UNSUPPORTED_PROTOCOL, CURLE_URL_MALFORMAT, CURLE_TOO_MANY_REDIRECTS,
          CURLE_WRITE_ERROR, CURLE_OUT_OF_MEMORY, CURLE_BAD_CONTENT_ENCODING}) {
        EXPECT_EQ(requestErrorTypeFor(code), HttpRequestErrorType::OtherError) << code;
    }
}

TEST(CurlErrorMappingTest, TheDetailedTextWinsOverTheGenericOne) {
    EXPECT_EQ(curlErrorText(CURLE_COULDNT_CONNECT, "Failed to connect to 127.0.0.1 port 1"),
              "Failed to connect to 127.0.0.1 port 1");
    EXPECT_EQ(curlErrorText(CURLE_COULDNT_CONNECT, ""), "Couldn't connect to server");
    EXPECT_EQ(curlErrorText(CURLE_COULDNT_CONNECT, nullptr), "Couldn't connect to server");
}

TEST(CurlErrorMappingTest, RunningOutOfMemoryOverAHeadReadsAsAnOversizedHead) {
    const struct {
        const char* buffer;
        bool headComplete;
        std::string expected;
    } rows[] = {
        {"Rejected 4194400 bytes header (max is 102400)!", false, kResponseHeaderTooLarge},
        {"", false, kResponseHeaderTooLarge},
        {"", true, "Out of memory"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(curlErrorText(CURLE_OUT_OF_MEMORY, row.buffer, row.headComplete), row.expected)
            << row.buffer << row.headComplete;
    }
}

}  // namespace
}  // namespace terrane::common
