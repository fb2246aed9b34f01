#pragma once

#include <curl/curl.h>

#include <string>
#include <vector>

#include "platform/linux/curl_handles.hpp"
#include "terrane/expected.hpp"
#include "terrane/http/http_request.hpp"

namespace terrane::common {

// libcurl's error buffer for one transfer; it must live as long as the easy handle.
using CurlErrorBuffer = char[CURL_ERROR_SIZE];

// The header list a request goes out with: the caller's headers as given, plus the generated
// "User-Agent" unless the caller set a non-empty value under exactly that key (a lower-case
// "user-agent" of the caller's gets the generated one beside it), plus extraLines ("Name: value"),
// which replace the caller's headers of the same name (compared without regard to case).
// An "Expect:" line keeps libcurl from waiting for a 100 Continue that many servers never send.
// The error is a text for the request's error message.
expected<CurlHeaderList, std::string> buildHeaderList(const HttpRequest& request,
                                                      const std::string& userAgent,
                                                      const std::vector<std::string>& extraLines);

// A new easy handle set up for the request, with the policy that holds for every transfer of the
// engine: redirects followed (at most 10) over http and https only, TLS peers and host names
// verified against the system's certificates, bodies decoded (every encoding libcurl knows,
// gzip, deflate and br among them, is offered unless the header list names its own
// Accept-Encoding), the process-wide TransferLimits (connect timeout, stall limit), no signals. The
// request's body is sent only for Post and is not copied: request, headers and errorBuffer must
// outlive the handle. Nothing about the request's own timeout or where the body goes: that is the
// caller's.
expected<CurlEasyHandle, std::string> createEasyHandle(const HttpRequest& request,
                                                       const CurlHeaderList& headers,
                                                       CurlErrorBuffer& errorBuffer);

}  // namespace terrane::common
