#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/http/url.hpp"

namespace terrane::common {

enum class UrlScheme : int32_t {
    Http = 0,   // "http"
    Https = 1,  // "https"
};

class UrlBuilderImpl;

// Assembles an absolute http or https URL from its parts. Text is taken byte for byte: nothing is
// percent-encoded, so callers pass segments and parameters already in the form they want on the
// wire. A builder is not synchronised: use one from one thread at a time.
class TERRANE_EXPORT UrlBuilder {
  public:
    // Scheme https, no host, no port, no path segments, no query parameters.
    UrlBuilder();
    ~UrlBuilder();

    UrlBuilder(const UrlBuilder&) = delete;
    UrlBuilder& operator=(const UrlBuilder&) = delete;

    void scheme(UrlScheme scheme);
    void host(const std::string& host);
    // Once set, a port cannot be removed again, only replaced.
    void port(uint16_t port);

    // Appends one path step. An empty segment right after another empty one is ignored, so that
    // runs of empty segments give a single "//" in the path.
    void addPathSegment(const std::string& segment);

    // Parameters come out ordered by name (byte-wise); equal names keep the order of addition.
    // A parameter with an empty value is written as its bare name.
    void addQueryParameter(const std::string& name, const std::string& value);

    // Returns a new Url the caller owns, or the error "Host is not set" when the host is empty.
    // The builder is left as it was and can be built again.
    expected<std::shared_ptr<Url>, std::string> build() const;

  private:
    std::unique_ptr<UrlBuilderImpl> impl_;
};

}  // namespace terrane::common
