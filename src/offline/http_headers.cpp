#include "offline/http_headers.hpp"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>

#include "offline/region_catalogue.hpp"

namespace terrane::common {

namespace {

constexpr std::string_view maxAgeMarker = "max-age=";

bool equalsIgnoringCase(std::string_view name, std::string_view lowerCase) {
    return name.size() == lowerCase.size() &&
           std::equal(name.begin(), name.end(), lowerCase.begin(), [](char a, char b) {
               return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
           });
}

// now + seconds, or "never" when the sum lies beyond the clock's range.
util::TimePoint leaseEnd(util::TimePoint now, long long seconds) {
    const util::TimePoint from = std::max(now, util::TimePoint{});
    const auto headroom =
        std::chrono::duration_cast<std::chrono::seconds>(util::TimePoint::max() - from);
    if (seconds >= headroom.count()) {
        return util::TimePoint::max();
    }
    return now + std::chrono::seconds(seconds);
}

void readCacheControl(const std::string& value, util::TimePoint now,
                      OfflineDataPackHeaders& headers) {
    const auto marker = value.find(maxAgeMarker);
    if (marker == std::string::npos) {
        return;
    }
    // strtoll with base 0 reads what "%lli" reads (sign, blanks, 0x and 0 prefixes), and unlike
    // sscanf it has a defined answer for a number too large: the largest one, i.e. "never".
    const char* const start = value.c_str() + marker + maxAgeMarker.size();
    char* end = nullptr;
    const long long seconds = std::strtoll(start, &end, 0);
    if (end == start || seconds < 0) {
        return;
    }
    headers.max_age = seconds;
    headers.expires = leaseEnd(now, seconds);
}

}  // namespace

OfflineDataPackHeaders extractHeaders(const HttpResponseData& response, util::TimePoint now) {
    OfflineDataPackHeaders headers;
    for (const auto& [name, value] : response.headers) {
        if (equalsIgnoringCase(name, "cache-control")) {
            readCacheControl(value, now, headers);
        } else if (equalsIgnoringCase(name, "etag")) {
            headers.etag = value;
        }
    }
    return headers;
}

OfflineDataPackHeaders extractHeaders(const HttpResponseData& response) {
    return extractHeaders(response, std::chrono::time_point_cast<util::TimePoint::duration>(
                                        std::chrono::system_clock::now()));
}

OfflineDataError extractHTTPError(const HttpResponseData& response) {
    std::string message = getResponseMessage(response.data);
    switch (response.code) {
        case 401:
        case 403:
            return {OfflineDataErrorCode::Unauthorized, std::move(message)};
        case 404:
            return {OfflineDataErrorCode::NotFound, std::move(message)};
        case 429:
            return {OfflineDataErrorCode::RateLimited, std::move(message)};
        default:
            break;
    }
    const auto code = response.code >= 500 && response.code <= 599 ? OfflineDataErrorCode::Server
                                                                   : OfflineDataErrorCode::Unknown;
    std::string text = "HTTP Error " + std::to_string(response.code);
    if (!message.empty()) {
        text += ": " + message;
    }
    return {code, std::move(text)};
}

bool weakEntityTagsMatch(std::string_view a, std::string_view b) {
    const auto opaque = [](std::string_view tag) {
        return tag.starts_with("W/") ? tag.substr(2) : tag;
    };
    return !a.empty() && !b.empty() && opaque(a) == opaque(b);
}

}  // namespace terrane::common
