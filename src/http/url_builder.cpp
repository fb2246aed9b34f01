#include "terrane/http/url_builder.hpp"

#include "http/url_builder_impl.hpp"

namespace terrane::common {

UrlBuilder::UrlBuilder() : impl_(std::make_unique<UrlBuilderImpl>()) {
}

UrlBuilder::~UrlBuilder() = default;

void UrlBuilder::scheme(UrlScheme scheme) {
    impl_->scheme(scheme);
}

void UrlBuilder::host(const std::string& host) {
    impl_->host(host);
}

void UrlBuilder::port(uint16_t port) {
    impl_->port(port);
}

void UrlBuilder::addPathSegment(const std::string& segment) {
    impl_->addPathSegment(segment);
}

void UrlBuilder::addQueryParameter(const std::string& name, const std::string& value) {
    impl_->addQueryParameter(name, value);
}

expected<std::shared_ptr<Url>, std::string> UrlBuilder::build() const {
    return impl_->build();
}

}  // namespace terrane::common
