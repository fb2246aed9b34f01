// Feeds arbitrary bytes to the URL splitter and checks the properties the offline address
// rewriting relies on: parsing never fails, the parts are cut at the right separators, the parts
// put back together with their separators give the input again, and parsing what str() returns
// changes nothing any more.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "http/url_parser.hpp"

namespace {

using terrane::common::URL;

[[noreturn]] void fail(const char* what, const std::string& input) {
    std::fprintf(stderr, "url_parser_fuzzer: %s (input of %zu bytes)\n", what, input.size());
    std::abort();
}

void check(bool condition, const char* what, const std::string& input) {
    if (!condition) {
        fail(what, input);
    }
}

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isSchemeCharacter(char c) {
    return isLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

bool hasAny(const std::string& text, const char* characters) {
    return text.find_first_of(characters) != std::string::npos;
}

// A scheme is empty, a run of slashes, or letter, scheme characters, ":" and slashes, all lower
// case.
bool isWellFormedScheme(const std::string& scheme) {
    std::size_t i = 0;
    if (!scheme.empty() && scheme[0] != '/') {
        if (!isLetter(scheme[0])) {
            return false;
        }
        while (i < scheme.size() && isSchemeCharacter(scheme[i])) {
            if (scheme[i] >= 'A' && scheme[i] <= 'Z') {
                return false;
            }
            ++i;
        }
        if (i == scheme.size() || scheme[i] != ':') {
            return false;
        }
        ++i;
    }
    while (i < scheme.size() && scheme[i] == '/') {
        ++i;
    }
    return i == scheme.size();
}

bool sameParts(const URL& a, const URL& b) {
    return a.scheme == b.scheme && a.domain == b.domain && a.path == b.path && a.query == b.query &&
           a.fragment == b.fragment;
}

// Whether some choice of present separators joins the parts back into `expected`.
bool joinsBackTo(const URL& url, const std::string& expected) {
    for (int mask = 0; mask < 8; ++mask) {
        std::string joined = url.scheme + url.domain;
        if (mask & 1) {
            joined += "/" + url.path;
        } else if (!url.path.empty()) {
            continue;
        }
        if (mask & 2) {
            joined += "?" + url.query;
        } else if (!url.query.empty()) {
            continue;
        }
        if (mask & 4) {
            joined += "#" + url.fragment;
        } else if (!url.fragment.empty()) {
            continue;
        }
        if (joined == expected) {
            return true;
        }
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const URL url(input);

    check(isWellFormedScheme(url.scheme), "malformed scheme", input);
    check(input.size() >= url.scheme.size(), "scheme longer than input", input);
    std::string lowered = input;
    for (std::size_t i = 0; i < url.scheme.size(); ++i) {
        const char c = lowered[i];
        lowered[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    check(lowered.compare(0, url.scheme.size(), url.scheme) == 0, "scheme is not a prefix", input);
    // The scheme takes every slash it can, so nothing after it starts with one.
    check(url.domain.empty() || url.domain[0] != '/', "domain starts with a slash", input);

    const std::string joined = url.str();
    if (url.scheme == "data:") {
        check(url.query.empty() && url.fragment.empty(), "data URL with query or fragment", input);
        check(!hasAny(url.domain, ","), "data URL domain holds a comma", input);
        const std::string withComma = url.scheme + url.domain + "," + url.path;
        check(lowered == withComma || (lowered == url.scheme + url.domain && url.path.empty()),
              "data URL parts do not join back", input);
        check(joined == withComma, "data URL str() lost its comma or payload", input);
    } else {
        check(!hasAny(url.domain, "/?#"), "domain holds a separator", input);
        check(!hasAny(url.path, "?#"), "path holds a query or fragment marker", input);
        check(!hasAny(url.query, "#"), "query holds a fragment marker", input);
        check(!url.domain.empty() || url.path.empty(), "path without a domain", input);
        check(joinsBackTo(url, lowered), "parts do not join back into the input", input);
        check(joined.size() <= lowered.size() && lowered.size() - joined.size() <= 3,
              "str() dropped more than bare separators", input);
        if (lowered.size() == joined.size()) {
            check(joined == lowered, "str() changed the input", input);
        }
    }

    const URL again(joined);
    check(sameParts(again, url), "parsing str() gives different parts", input);
    check(again.str() == joined, "str() is not stable", input);
    return 0;
}
