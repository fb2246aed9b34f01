#include "terrane/http/url.hpp"

#include <utility>

namespace terrane::common {

Url::Url(std::string url) : url_(std::move(url)) {
}

std::string Url::getString() const {
    return url_;
}

}  // namespace terrane::common
