#pragma once

#include <cstdint>
#include <string>

#include "terrane/export.hpp"

namespace terrane::common {

// The product lines (SKUs) that billed requests are counted against. Each is known by a two-digit
// code that appears in its tokens; the enumerators are named after those codes. Values outside
// this list are accepted and get tokens without a code.
enum class SKUIdentifier : std::uint32_t {
    Code00 = 0,
    // The service SKU: while a token for it is live, it is handed out for every SKU.
    Code03 = 1,
    Code04 = 2,
    Code06 = 3,
};

// Hands out usage (SKU) tokens: 43 characters, "1", the SKU's two-digit code, 8 base-62
// characters and 32 lower-case hexadecimal digits. A token is reused for its SKU for one hour of
// monotonic time after it was made, then replaced on the next request; nothing is kept across
// processes.
//
// The random characters come from the C library's rand(), which this library never seeds: seed
// it in the application if tokens must differ between processes started alike.
class TERRANE_EXPORT TokenGenerator {
  public:
    TokenGenerator() = delete;

    // Any thread; requests are serialised process-wide. The caller owns the returned text.
    static std::string getSKUToken(SKUIdentifier sku);
};

}  // namespace terrane::common
