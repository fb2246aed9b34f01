#pragma once

#include <cstdint>
#include <string>

#include "terrane/expected.hpp"
#include "terrane/http/http_request.hpp"

namespace terrane::common {

// Why a request produced no HTTP response at all. The values cross the platform boundary as plain
// integers, so they must never be renumbered.
enum class HttpRequestErrorType : std::uint32_t {
    // No connection could be made or it was lost: no network, unknown host, DNS failure, roaming
    // or cellular data not allowed.
    ConnectionError = 0,
    // The secure connection or the certificate failed, or loading from the network is not allowed.
    SSLError = 1,
    RequestCancelled = 2,
    RequestTimedOut = 3,
    // Nothing produces this value; it holds the slot so that OtherError keeps its number.
    Reserved = 4,
    OtherError = 5,
};

// A transport failure. HTTP error statuses are not failures: they arrive as HttpResponseData.
struct HttpRequestError {
    HttpRequestErrorType type = HttpRequestErrorType::OtherError;
    std::string message;

    friend bool operator==(const HttpRequestError&, const HttpRequestError&) = default;
};

// What the server answered. Services lower-case every header name.
struct HttpResponseData {
    HttpHeaders headers;
    // The HTTP status code; 0 when no HTTP response was delivered.
    std::int64_t code = 0;
    HttpBody data;

    friend bool operator==(const HttpResponseData&, const HttpResponseData&) = default;
};

// A response (whatever its status code) or the transport failure that prevented one.
using HttpResult = expected<HttpResponseData, HttpRequestError>;

// The outcome of one request, paired with the request as it was issued.
struct HttpResponse {
    HttpRequest request;
    HttpResult result;

    friend bool operator==(const HttpResponse&, const HttpResponse&) = default;
};

}  // namespace terrane::common
