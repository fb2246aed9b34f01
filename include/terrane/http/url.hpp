#pragma once

#include <string>

#include "terrane/export.hpp"

namespace terrane::common {

// A finished URL as produced by UrlBuilder. Immutable; safe to read from any thread.
class TERRANE_EXPORT Url {
  public:
    explicit Url(std::string url);

    // Any thread. Returns a copy of the URL text.
    std::string getString() const;

  private:
    std::string url_;
};

}  // namespace terrane::common
