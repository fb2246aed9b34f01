#pragma once

#include <curl/curl.h>

#include <string>

#include "terrane/http/http_response.hpp"

namespace terrane::common {

// The kind of transport failure a libcurl result stands for:
//   cannot resolve the host or the proxy, cannot connect, a send or receive failure, an empty
//   reply, a connection that closed before the whole body arrived -> ConnectionError;
//   timed out -> RequestTimedOut; any TLS or certificate failure -> SSLError; everything else
//   (a redirect to a refused scheme, a malformed URL, ...) -> OtherError.
// Cancellation never reaches libcurl's results: the engine reports it itself. Pure; any thread.
HttpRequestErrorType requestErrorTypeFor(CURLcode result);

// The message of a transfer whose response head was too large, by libcurl's limits or ours.
inline constexpr char kResponseHeaderTooLarge[] = "Response header too large.";
inline constexpr char kResponseBodyTooLarge[] = "Response body too large.";

// libcurl's own text for a failed transfer: the detailed message of the error buffer when libcurl
// wrote one, else the generic text of the result. libcurl reports a response header beyond its
// limits as running out of memory (or, in newer versions, as too large): while the head is not yet
// complete (headComplete false), that reads kResponseHeaderTooLarge instead.
std::string curlErrorText(CURLcode result, const char* errorBuffer, bool headComplete = true);

}  // namespace terrane::common
