#include "platform/linux/easy_request.hpp"

#include <strings.h>

#include <algorithm>
#include <string_view>

#include "terrane/http/transfer_limits.hpp"

namespace terrane::common {

namespace {

constexpr long kMaxRedirects = 10;
constexpr const char kAllowedProtocols[] = "http,https";
constexpr const char kOutOfMemory[] = "Out of memory";

bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// Whether one of the lines ("Name: value") sets the header.
bool setByLines(const std::string& name, const std::vector<std::string>& lines) {
    for (const auto& line : lines) {
        if (sameName(name, std::string_view(line).substr(0, line.find(':')))) {
            return true;
        }
    }
    return false;
}

}  // namespace

expected<CurlHeaderList, std::string> buildHeaderList(const HttpRequest& request,
                                                      const std::string& userAgent,
                                                      const std::vector<std::string>& extraLines) {
    CurlHeaderList list;
    bool ok = true;
    bool callerSetsExpect = false;
    for (const auto& [name, value] : request.headers) {
        if (name == "User-Agent" && value.empty()) {
            continue;  // an empty value counts as none: the generated one goes out instead
        }
        if (setByLines(name, extraLines)) {
            continue;
        }
        if (sameName(name, "expect")) {
            callerSetsExpect = true;
        }
        // libcurl drops a header written "Name:" and sends an empty one written "Name;".
        ok = ok && list.append(value.empty() ? name + ";" : name + ": " + value);
    }
    const auto callerAgent = request.headers.find("User-Agent");
    if (callerAgent == request.headers.end() || callerAgent->second.empty()) {
        ok = ok && list.append("User-Agent: " + userAgent);
    }
    if (!callerSetsExpect) {
        ok = ok && list.append("Expect:");
    }
    for (const auto& line : extraLines) {
        ok = ok && list.append(line);
    }
    if (!ok) {
        return unexpected(std::string(kOutOfMemory));
    }
    return list;
}

expected<CurlEasyHandle, std::string> createEasyHandle(const HttpRequest& request,
                                                       const CurlHeaderList& headers,
                                                       CurlErrorBuffer& errorBuffer) {
    CurlEasyHandle easy(curl_easy_init());
    if (!easy) {
        return unexpected(std::string(kOutOfMemory));
    }
    CURL* handle = easy.get();
    errorBuffer[0] = '\0';
    CURLcode result = CURLE_OK;
    const auto set = [&](CURLoption option, auto value) {
        if (result == CURLE_OK) {
            result = curl_easy_setopt(handle, option, value);
        }
    };
    set(CURLOPT_ERRORBUFFER, static_cast<char*>(errorBuffer));
    set(CURLOPT_URL, request.url.c_str());
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_HTTPHEADER, headers.get());
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, kMaxRedirects);
    set(CURLOPT_PROTOCOLS_STR, kAllowedProtocols);
    set(CURLOPT_REDIR_PROTOCOLS_STR, kAllowedProtocols);
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    // An empty list asks for every encoding this libcurl can decode and decodes the body. An
    // Accept-Encoding line in the header list goes out instead of libcurl's, and whatever encoding
    // the server still chooses is decoded all the same.
    set(CURLOPT_ACCEPT_ENCODING, "");
    const TransferLimits limits = getTransferLimits();
    // libcurl refuses a negative time, which would fail every exchange: it counts as 0.
    set(CURLOPT_CONNECTTIMEOUT, std::max<long>(0, limits.connectTimeout.count()));
    if (limits.lowSpeedBytesPerSecond > 0 && limits.lowSpeedTime.count() > 0) {
        set(CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(limits.lowSpeedBytesPerSecond));
        set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(limits.lowSpeedTime.count()));
    }
    switch (request.method) {
        case HttpMethod::Get:
            set(CURLOPT_HTTPGET, 1L);
            break;
        case HttpMethod::Head:
            set(CURLOPT_NOBODY, 1L);
            break;
        case HttpMethod::Post:
            set(CURLOPT_POST, 1L);
            set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
            set(CURLOPT_POSTFIELDS,
                request.body.empty() ? "" : reinterpret_cast<const char*>(request.body.data()));
            break;
    }
    if (result != CURLE_OK) {
        return unexpected(std::string(curl_easy_strerror(result)));
    }
    return easy;
}

}  // namespace terrane::common
