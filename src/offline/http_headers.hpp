#pragma once

#include <string_view>

#include "offline/offline_data_pack_headers.hpp"
#include "terrane/http/http_response.hpp"
#include "terrane/offline/offline_data.hpp"
#include "terrane/util/rfc3339.hpp"

// Reading the answers of the pack endpoint: the lease it grants in its caching headers, and the
// error it means by a failing status. Pure functions: any thread, no shared state, and every
// result belongs to the caller.

namespace terrane::common {

// The lease of an answer, from the time `now`: "cache-control" with "max-age=<n>" (the marker
// case-sensitive; n read like the scanf conversion "%lli", so 0x10 and 010 count as 16 and 8)
// gives max_age n and expires now + n seconds when n is 0 or more ("never" when that lies beyond
// the clock's range); "etag" gives the entity tag as it stands, quotes included. Header names
// are matched in any case. Without these headers: no expiry, max_age -1, empty etag. The other
// fields of the result (bytes, complete, verified) keep their defaults.
OfflineDataPackHeaders extractHeaders(const HttpResponseData& response, util::TimePoint now);
// The same from the current system-clock time.
OfflineDataPackHeaders extractHeaders(const HttpResponseData& response);

// Whether two entity tags name the same entity by the weak comparison of HTTP (RFC 9110): equal
// once a leading "W/" is dropped from each. An empty tag (none sent) matches nothing.
bool weakEntityTagsMatch(std::string_view a, std::string_view b);

// The error an HTTP status stands for, with the server's explanation from the body (see
// getResponseMessage): 401 and 403 Unauthorized, 404 NotFound, 429 RateLimited, each with the
// explanation as it stands; 500 to 599 Server and every other status Unknown, with "HTTP Error
// <status>: <explanation>", or "HTTP Error <status>" when the body explains nothing.
OfflineDataError extractHTTPError(const HttpResponseData& response);

}  // namespace terrane::common
