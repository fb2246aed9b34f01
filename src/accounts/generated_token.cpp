#include "accounts/generated_token.hpp"

#include "accounts/sku_code.hpp"
#include "terrane/util/md5.hpp"

namespace terrane::common {

namespace {
// The token layout's own version, the first field of every token.
constexpr int tokenFormatVersion = 1;
}  // namespace

std::string GeneratedToken::token() {
    if (!cachedToken) {
        std::string text = std::to_string(tokenFormatVersion);
        text += skuCode(sku);
        text += userRandomizer;
        // Only a digest of the id leaves the process.
        text += util::md5String(userId);
        cachedToken = std::move(text);
    }
    return *cachedToken;
}

}  // namespace terrane::common
