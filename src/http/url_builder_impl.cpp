#include "http/url_builder_impl.hpp"

#include <cstdlib>

namespace terrane::common {

namespace {

const char* schemeText(UrlScheme scheme) {
    switch (scheme) {
        case UrlScheme::Http:
            return "http";
        case UrlScheme::Https:
            return "https";
    }
    // Only a cast from an out-of-range integer gets here.
    std::abort();
}

}  // namespace

void UrlBuilderImpl::addPathSegment(const std::string& segment) {
    // With no segment yet there is no previous empty one to merge with, so the first empty
    // segment is kept and the URL ends in "/".
    if (segment.empty() && !pathSegments_.empty() && pathSegments_.back().empty()) {
        return;
    }
    pathSegments_.push_back(segment);
}

void UrlBuilderImpl::addQueryParameter(const std::string& name, const std::string& value) {
    queryParameters_.emplace(name, value);
}

expected<std::shared_ptr<Url>, std::string> UrlBuilderImpl::build() const {
    std::string url = schemeText(scheme_);
    url += "://";
    if (host_.empty()) {
        return unexpected<std::string>("Host is not set");
    }
    url += host_;
    if (port_) {
        url += ':';
        url += std::to_string(*port_);
    }
    if (pathSegments_.empty()) {
        url += '/';
    }
    for (const auto& segment : pathSegments_) {
        url += '/';
        url += segment;
    }
    char separator = '?';
    for (const auto& [name, value] : queryParameters_) {
        url += separator;
        separator = '&';
        url += name;
        if (!value.empty()) {
            url += '=';
            url += value;
        }
    }
    return std::make_shared<Url>(std::move(url));
}

}  // namespace terrane::common
