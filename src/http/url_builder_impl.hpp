#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "terrane/expected.hpp"
#include "terrane/http/url.hpp"
#include "terrane/http/url_builder.hpp"

namespace terrane::common {

// State and rules behind UrlBuilder; same threading contract (one thread at a time).
class UrlBuilderImpl {
  public:
    void scheme(UrlScheme scheme) { scheme_ = scheme; }
    void host(const std::string& host) { host_ = host; }
    void port(uint16_t port) { port_ = port; }
    void addPathSegment(const std::string& segment);
    void addQueryParameter(const std::string& name, const std::string& value);
    expected<std::shared_ptr<Url>, std::string> build() const;

  private:
    UrlScheme scheme_ = UrlScheme::Https;
    std::string host_;
    optional<uint16_t> port_;
    std::vector<std::string> pathSegments_;
    // std::string compares through char_traits<char>, i.e. as unsigned bytes, and multimap
    // inserts an equal key after the ones already present: exactly the parameter order we want.
    std::multimap<std::string, std::string> queryParameters_;
};

}  // namespace terrane::common
