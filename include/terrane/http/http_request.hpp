#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "terrane/http/ua_components.hpp"

namespace terrane::common {

// The values cross the platform boundary as plain integers, so they must never be renumbered.
enum class HttpMethod : std::uint32_t {
    Get = 0,   // no body is sent
    Head = 1,  // headers only; no body is sent
    Post = 2,  // the request body is sent
};

// Header names are kept as the caller wrote them on the way out; services lower-case the names of
// response headers.
using HttpHeaders = std::unordered_map<std::string, std::string>;

// Request and response bodies are raw bytes: packs and compressed payloads are not text.
using HttpBody = std::vector<std::uint8_t>;

// One HTTP exchange as the caller wants it issued. A plain value record: the caller fills it, the
// service consumes it and hands a copy back inside the response.
struct HttpRequest {
    HttpMethod method = HttpMethod::Get;
    // The absolute URL as text.
    std::string url;
    HttpHeaders headers;
    // Asks for the body still compressed; ignored by services whose supportsKeepCompression() is
    // false.
    bool keepCompression = false;
    // Seconds; 0 means the service's own default (and, for downloads, no time-to-response limit).
    std::uint64_t timeout = 0;
    UAComponents uaComponents;
    // Sent only with HttpMethod::Post.
    HttpBody body;

    HttpRequest() = default;

    HttpRequest(HttpMethod givenMethod, std::string givenUrl, HttpHeaders givenHeaders,
                bool givenKeepCompression, std::uint64_t givenTimeout,
                UAComponents givenUaComponents, HttpBody givenBody)
        : method(givenMethod),
          url(std::move(givenUrl)),
          headers(std::move(givenHeaders)),
          keepCompression(givenKeepCompression),
          timeout(givenTimeout),
          uaComponents(std::move(givenUaComponents)),
          body(std::move(givenBody)) {}

    // The short form applications use: a GET without timeout that keeps no compression.
    explicit HttpRequest(std::string givenUrl, HttpHeaders givenHeaders = {},
                         UAComponents givenUaComponents = {}, HttpBody givenBody = {})
        : url(std::move(givenUrl)),
          headers(std::move(givenHeaders)),
          uaComponents(std::move(givenUaComponents)),
          body(std::move(givenBody)) {}

    friend bool operator==(const HttpRequest&, const HttpRequest&) = default;
};

}  // namespace terrane::common
