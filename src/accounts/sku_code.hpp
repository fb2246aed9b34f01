#pragma once

#include <string_view>

#include "terrane/accounts/token_generator.hpp"

namespace terrane::common {

// The two-character code of `sku` ("00", "03", "04", "06"), or "" for a value outside the
// enumeration. The view refers to static storage. Reentrant.
std::string_view skuCode(SKUIdentifier sku);

}  // namespace terrane::common
