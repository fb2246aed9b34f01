#include "offline/region_catalogue.hpp"

#include <rapidjson/document.h>

#include <array>
#include <utility>

#include "http/url_parser.hpp"
#include "offline/offline_storage.hpp"
#include "value/json_reader.hpp"

namespace terrane::common {

namespace {

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

// The endpoint's version; every expanded address lives below it.
constexpr std::string_view offlineDataPathPrefix = "offline-data/v1/";

OfflineDataError failure(OfflineDataErrorCode code, std::string message) {
    return OfflineDataError{code, std::move(message)};
}

std::string textOf(const HttpBody& body) {
    return std::string(body.begin(), body.end());
}

// A catalogue runs to tens of megabytes: it is parsed where it lies rather than copied.
std::string_view viewOf(const HttpBody& body) {
    return {reinterpret_cast<const char*>(body.data()), body.size()};
}

// The JSON reader reports "Parse error at offset <n>: <message>"; the catalogue's reports carry
// the parser's message without the offset, which means nothing to a caller who never sees the
// body.
std::string parserMessage(const std::string& readerError) {
    const auto separator = readerError.find(": ");
    return separator == std::string::npos ? readerError : readerError.substr(separator + 2);
}

// ---- Redaction ----------------------------------------------------------------------------

// Hexadecimal digits and "%" can appear in a percent-encoded secret without appearing in the
// secret itself, so they never serve as a mask.
bool canMask(char c) {
    const bool hexDigit =
        (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    return c != '%' && !hexDigit;
}

// A printable character that is in none of the forms searched for, so that a mask can neither
// complete an occurrence with its neighbours nor be one.
optional<char> maskCharacterFor(std::string_view secret) {
    if (secret.find('*') == std::string_view::npos) {
        return '*';
    }
    for (char c = '!'; c <= '~'; ++c) {
        if (canMask(c) && secret.find(c) == std::string_view::npos) {
            return c;
        }
    }
    return nullopt;
}

bool isUnreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

std::string percentEncoded(std::string_view text, const char* digits) {
    std::string encoded;
    encoded.reserve(text.size() * 3);
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (isUnreserved(byte)) {
            encoded += c;
        } else {
            encoded += '%';
            encoded += digits[byte >> 4];
            encoded += digits[byte & 0x0F];
        }
    }
    return encoded;
}

// The characters that would change the meaning of a query value: its separators, the escape
// character itself, the fragment mark, "+" (a blank to many servers), blanks and controls.
bool changesQuery(unsigned char c) {
    return c == ' ' || c == '%' || c == '&' || c == '#' || c == '+' || c < 0x20 || c == 0x7F;
}

std::string queryEncoded(std::string_view text, const char* digits) {
    std::string encoded;
    encoded.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (changesQuery(byte)) {
            encoded += '%';
            encoded += digits[byte >> 4];
            encoded += digits[byte & 0x0F];
        } else {
            encoded += c;
        }
    }
    return encoded;
}

// One left-to-right pass. Whatever is left between two replacements is a piece of the input
// that the search has already passed over in full, so no occurrence survives, and none can be
// formed across a mask made of a character that the needle lacks.
void replaceAll(std::string& text, std::string_view needle, std::string_view replacement) {
    for (auto at = text.find(needle); at != std::string::npos;
         at = text.find(needle, at + replacement.size())) {
        text.replace(at, needle.size(), replacement);
    }
}

}  // namespace

std::string catalogueAddress(std::string_view username) {
    std::string address(offlineDataScheme);
    address += offlineDataHost;
    address += '/';
    address += username;
    address += "/regions";
    return address;
}

std::string expandOfflineDataURL(const std::string& url, const std::string& baseURL,
                                 const std::string& accessToken) {
    const URL address(url);
    if (address.scheme != offlineDataScheme || address.domain != offlineDataHost) {
        return url;
    }
    URL expanded(baseURL);
    // A base URL given with a trailing slash ("https://host/api/") means the same endpoint as
    // one without, so it must not produce a doubled slash.
    if (!expanded.path.empty() && !expanded.path.ends_with('/')) {
        expanded.path += '/';
    }
    expanded.path += offlineDataPathPrefix;
    expanded.path += address.path;
    if (!expanded.query.empty()) {
        expanded.query += '&';
    }
    expanded.query += "access_token=";
    expanded.query += queryEncoded(accessToken, "0123456789ABCDEF");
    return expanded.str();
}

AvailableRegionsResult parseAvailableRegionsList(const HttpResponseData& data,
                                                 std::vector<std::string>* unsafeIds) {
    switch (data.code) {
        case 200:
        case 204:
            break;
        case 401:
        case 403:
            return unexpected(
                failure(OfflineDataErrorCode::Unauthorized, getResponseMessage(data.data)));
        case 404:
            return unexpected(
                failure(OfflineDataErrorCode::NotFound, getResponseMessage(data.data)));
        default:
            return unexpected(
                failure(OfflineDataErrorCode::InvalidResponse,
                        "Got unexpected HTTP status code " + std::to_string(data.code)));
    }

    rapidjson::Document document;
    if (auto parsed = json::parseDocument(viewOf(data.data), document); !parsed) {
        return unexpected(failure(OfflineDataErrorCode::InvalidResponse,
                                  "Parse error: " + parserMessage(parsed.error())));
    }
    if (!document.IsObject()) {
        return unexpected(failure(OfflineDataErrorCode::InvalidResponse,
                                  "Parse error: root of document must be an object"));
    }

    std::vector<OfflineDataRegionMetadata> regions;
    regions.reserve(document.MemberCount());
    for (const auto& member : document.GetObject()) {
        if (const std::string id(member.name.GetString(), member.name.GetStringLength());
            !isValidRegionId(id)) {
            if (unsafeIds != nullptr) {
                unsafeIds->push_back(id);
            }
            continue;
        }
        auto region = parseRegionMetadata(member.name, member.value);
        if (!region) {
            return unexpected(std::move(region.error()));
        }
        regions.push_back(std::move(*region));
    }
    return regions;
}

std::string escapeControlCharacters(std::string_view text) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            escaped += "\\\\";
        } else if (byte < 0x20 || byte == 0x7F) {
            escaped += "\\x";
            escaped += digits[byte >> 4];
            escaped += digits[byte & 0x0F];
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::string getResponseMessage(const HttpBody& body) {
    const std::string text = textOf(body);
    const std::string_view content = std::string_view(text).starts_with(byteOrderMark)
                                         ? std::string_view(text).substr(byteOrderMark.size())
                                         : std::string_view(text);
    rapidjson::Document document;
    if (json::parseDocument(std::string(content), document) && document.IsObject()) {
        const auto message = document.FindMember("message");
        if (message != document.MemberEnd() && message->value.IsString()) {
            return std::string(message->value.GetString(), message->value.GetStringLength());
        }
    }
    return text;
}

std::string redactSecret(std::string_view text, std::string_view secret) {
    std::string result(text);
    if (secret.empty()) {
        return result;
    }
    // As it is, every reserved byte encoded, and only what expandOfflineDataURL encodes; each
    // with either case of hexadecimal digits.
    const std::array<std::string, 5> forms{
        std::string(secret), percentEncoded(secret, "0123456789ABCDEF"),
        percentEncoded(secret, "0123456789abcdef"), queryEncoded(secret, "0123456789ABCDEF"),
        queryEncoded(secret, "0123456789abcdef")};
    const auto mask = maskCharacterFor(secret);
    if (!mask) {
        // The secret holds every character that could mask it, so it is longer than this
        // replacement text, which therefore cannot contain it.
        for (const auto& form : forms) {
            if (result.find(form) != std::string::npos) {
                return "(withheld)";
            }
        }
        return result;
    }
    const std::string replacement(3, *mask);
    for (const auto& form : forms) {
        replaceAll(result, form, replacement);
    }
    return result;
}

}  // namespace terrane::common
