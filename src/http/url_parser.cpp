#include "http/url_parser.hpp"

#include <string_view>

namespace terrane::common {

namespace {

// Locale-independent on purpose: a URL's scheme is ASCII whatever the process locale says.
bool isAsciiLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isSchemeCharacter(char c) {
    return isAsciiLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

char toAsciiLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string_view::size_type schemeLength(std::string_view s) {
    std::string_view::size_type end = 0;
    while (end < s.size() && isSchemeCharacter(s[end])) {
        ++end;
    }
    if (end < s.size() && s[end] == ':' && isAsciiLetter(s[0])) {
        ++end;
    } else if (!s.empty() && s[0] == '/') {
        end = 0;
    } else {
        return 0;
    }
    while (end < s.size() && s[end] == '/') {
        ++end;
    }
    return end;
}

constexpr std::string_view kDataScheme = "data:";

}  // namespace

URL::URL(const std::string& url) {
    const std::string_view s = url;
    const auto schemeEnd = schemeLength(s);
    scheme.reserve(schemeEnd);
    for (const char c : s.substr(0, schemeEnd)) {
        scheme += toAsciiLower(c);
    }
    std::string_view rest = s.substr(schemeEnd);

    if (scheme == kDataScheme) {
        const auto comma = rest.find(',');
        domain = rest.substr(0, comma);
        if (comma != std::string_view::npos) {
            path = rest.substr(comma + 1);
        }
        return;
    }

    if (const auto hash = rest.find('#'); hash != std::string_view::npos) {
        fragment = rest.substr(hash + 1);
        rest = rest.substr(0, hash);
    }
    if (const auto question = rest.find('?'); question != std::string_view::npos) {
        query = rest.substr(question + 1);
        rest = rest.substr(0, question);
    }
    const auto slash = rest.find('/');
    domain = rest.substr(0, slash);
    if (slash != std::string_view::npos) {
        path = rest.substr(slash + 1);
    }
}

std::string URL::str() const {
    std::string result = scheme;
    result += domain;
    if (scheme == kDataScheme) {
        result += ',';
        result += path;
    } else if (!path.empty()) {
        result += '/';
        result += path;
    }
    if (!query.empty()) {
        result += '?';
        result += query;
    }
    if (!fragment.empty()) {
        result += '#';
        result += fragment;
    }
    return result;
}

}  // namespace terrane::common
