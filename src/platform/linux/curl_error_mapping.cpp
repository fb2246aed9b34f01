#include "platform/linux/curl_error_mapping.hpp"

namespace terrane::common {

HttpRequestErrorType requestErrorTypeFor(CURLcode result) {
    switch (result) {
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_CONNECT:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        // The peer closed the connection before the announced body was complete: the connection
        // was lost, whatever socket call noticed it.
        case CURLE_PARTIAL_FILE:
            return HttpRequestErrorType::ConnectionError;
        case CURLE_OPERATION_TIMEDOUT:
            return HttpRequestErrorType::RequestTimedOut;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_USE_SSL_FAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_SHUTDOWN_FAILED:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_CLIENTCERT:
            return HttpRequestErrorType::SSLError;
        default:
            return HttpRequestErrorType::OtherError;
    }
}

std::string curlErrorText(CURLcode result, const char* errorBuffer, bool headComplete) {
    bool headerOverflow = result == CURLE_OUT_OF_MEMORY;
#if LIBCURL_VERSION_NUM >= 0x080600
    headerOverflow = headerOverflow || result == CURLE_TOO_LARGE;
#endif
    if (headerOverflow && !headComplete) {
        return kResponseHeaderTooLarge;
    }
    if (errorBuffer != nullptr && errorBuffer[0] != '\0') {
        return errorBuffer;
    }
    return curl_easy_strerror(result);
}

}  // namespace terrane::common
