#pragma once

#include <chrono>
#include <string>

#include "terrane/accounts/token_generator.hpp"
#include "terrane/expected.hpp"

namespace terrane::common {

// Expiry times of tokens: the monotonic clock, so that changing the wall clock neither expires
// nor extends a token.
using TokenTimePoint = std::chrono::time_point<std::chrono::steady_clock, std::chrono::nanoseconds>;

// One usage token and what it is made of. A plain value: copyable, not synchronised (the cache
// that holds tokens guards them with its own mutex).
struct GeneratedToken {
    SKUIdentifier sku{};
    // 8 base-62 characters.
    std::string userRandomizer;
    // 32 upper-case hexadecimal characters, new for every token.
    std::string userId;
    TokenTimePoint expiry{};
    // The token text, once token() has made it.
    optional<std::string> cachedToken;

    // "1", the SKU's code, the randomizer and the lower-case MD5 of the user id; made on the first
    // call and cached in this object.
    std::string token();
};

}  // namespace terrane::common
