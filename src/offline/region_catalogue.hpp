#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "terrane/expected.hpp"
#include "terrane/http/http_request.hpp"
#include "terrane/http/http_response.hpp"
#include "terrane/offline/offline_data.hpp"

// The region catalogue: the addresses of the offline data endpoint, the reading of its listing,
// and keeping the access token out of every message that reports a failure.
//
// Every function here is pure (no shared state, no I/O): any thread may call them, and every
// result belongs to the caller. Nothing here throws for bad input; failures are OfflineDataError
// values.

namespace terrane::common {

using AvailableRegionsResult = expected<std::vector<OfflineDataRegionMetadata>, OfflineDataError>;

// Addresses of this form name a resource of the offline data endpoint without saying where it
// is or how to authorise: the worker expands them against its base URL and access token.
inline constexpr std::string_view offlineDataScheme = "terrane://";
inline constexpr std::string_view offlineDataHost = "offline-data";

// The report for a worker that finds no HTTP service in force.
inline constexpr std::string_view httpServiceUnavailableMessage = "HTTP Service is not available";

// "terrane://offline-data/<username>/regions". The username is inserted as it is.
std::string catalogueAddress(std::string_view username);

// Expands a "terrane://offline-data/<rest>" address onto the endpoint: the base URL's path gets
// "offline-data/v1/<rest>" appended (after a "/" when the path is not empty and does not already
// end in one), and the query gets "access_token=<accessToken>" appended (after a "&" when it is
// not empty). In the token only what would change the query is percent-encoded (blank, "%",
// "&", "#", "+" and control characters), so a token of unreserved characters is inserted byte
// for byte. The query and fragment
// of `url` itself are not carried over. Any other address (an ordinary http or https one, or a
// "terrane://" one for another host) is returned unchanged. The scheme is compared after the
// URL splitter has lower-cased it, the host exactly.
std::string expandOfflineDataURL(const std::string& url, const std::string& baseURL,
                                 const std::string& accessToken);

// Reads the catalogue's answer. 200 and 204 are parsed (so a 204 without body fails as an empty
// document); 401 and 403 give Unauthorized and 404 NotFound, each with getResponseMessage(body);
// any other status gives InvalidResponse "Got unexpected HTTP status code <code>" without looking
// at the body. The body must be a JSON object mapping region ids to revision objects, read in
// document order with parseRegionMetadata; the first bad region fails the whole list, except
// that a region whose id is no safe directory name (see isValidRegionId) is left out and its id
// added to `unsafeIds` (when given), so that one hostile entry does not hide the others. JSON
// faults give "Parse error: <the parser's English message>", a root of another type "Parse error:
// root of document must be an object"; all of these are InvalidResponse.
AvailableRegionsResult parseAvailableRegionsList(const HttpResponseData& data,
                                                 std::vector<std::string>* unsafeIds = nullptr);

// The text with every control character written as "\xNN" (and "\" as "\\"), so that text
// from a server cannot act on a terminal or forge lines of a log.
std::string escapeControlCharacters(std::string_view text);

// The server's explanation of an error status: after an optional UTF-8 byte-order mark, a JSON
// object's "message" member when it is a string; otherwise the whole body, bytes as they are.
std::string getResponseMessage(const HttpBody& body);

// `text` with every occurrence of `secret` replaced by a mask, and so also its percent-encoded
// forms (every reserved byte encoded, or only those expandOfflineDataURL encodes; upper- and
// lower-case hexadecimal), in case a client or server wrote the URL back in encoded form. An empty
// secret changes nothing. The mask is a run of "*", or of another character when the secret itself
// holds "*": the result never contains the secret. (A secret made of nearly every printable
// character leaves no mask character free; a text that contains it is then withheld whole.)
std::string redactSecret(std::string_view text, std::string_view secret);

}  // namespace terrane::common
