#pragma once

#include <string>

namespace terrane::common {

// Cuts a URL into five textual parts and glues them back together. Nothing is decoded or encoded
// and nothing is validated: text that fits nowhere else ends up in `domain` or `path`, so any byte
// string can be parsed. Used to rewrite "terrane://offline-data/..." addresses onto a base URL.
//
// scheme    "https://", "terrane://", "data:" (lower-cased, with its slashes), "//" for a
//           scheme-relative string, or empty
// domain    up to the first "/" (for "data:" the first ","), user information and port included
// path      after that separator, up to the query or fragment, without the separator
// query     after the first "?" before the fragment, without the "?"
// fragment  after the first "#", without the "#"
//
// A "data:" URL has only a domain (the media type) and a path (the payload): its "?" and "#" are
// payload. Plain value type; the fields may be edited freely between parsing and str().
class URL {
  public:
    explicit URL(const std::string& url);

    // Reassembles the parts. For anything parsed, this gives the input back with the scheme
    // lower-cased and a separator with nothing after it ("/", "?", "#") dropped; a "data:" URL
    // always gets its ",".
    std::string str() const;

    std::string scheme;
    std::string fragment;
    std::string query;
    std::string domain;
    std::string path;
};

}  // namespace terrane::common
