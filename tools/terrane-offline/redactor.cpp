#include "redactor.hpp"

namespace terrane::tool {

namespace {

constexpr std::string_view kMarker = "<redacted>";
constexpr std::string_view kQueryKey = "access_token=";
constexpr std::size_t kShortestReplacedToken = 4;

bool endsQueryValue(char c) {
    return c == '&' || c == '#' || c == ' ' || c == '"' || c == '\'' || c == '\n' || c == '\r' ||
           c == '\t' || c == '>' || c == ')';
}

}  // namespace

std::string Redactor::operator()(std::string_view text) const {
    std::string out;
    out.reserve(text.size());
    std::size_t position = 0;
    while (position < text.size()) {
        if (text.compare(position, kQueryKey.size(), kQueryKey) == 0) {
            out.append(kQueryKey);
            position += kQueryKey.size();
            const std::size_t start = position;
            while (position < text.size() && !endsQueryValue(text[position])) {
                ++position;
            }
            if (position > start) {
                out.append(kMarker);
            }
            continue;
        }
        if (token_.size() >= kShortestReplacedToken &&
            text.compare(position, token_.size(), token_) == 0) {
            out.append(kMarker);
            position += token_.size();
            continue;
        }
        out.push_back(text[position]);
        ++position;
    }
    return out;
}

}  // namespace terrane::tool
