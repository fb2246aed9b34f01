#pragma once

#include <string>
#include <string_view>

namespace terrane::tool {

// Keeps the access token out of everything the tool prints. The library puts the token into the
// query of every URL it builds, and transport errors or log lines may quote such a URL; every
// text bound for the terminal passes through here first.
//
// Immutable after construction; any thread may use it concurrently.
class Redactor {
  public:
    Redactor() = default;
    explicit Redactor(std::string token) : token_(std::move(token)) {}

    // `text` with every "access_token=" query value and every occurrence of the token replaced by
    // "<redacted>". Very short tokens are only caught as query values, since replacing, say, every
    // "a" would garble the message beyond use.
    std::string operator()(std::string_view text) const;

  private:
    std::string token_;
};

}  // namespace terrane::tool
