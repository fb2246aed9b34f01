#pragma once

#include <string>

#include "terrane/accounts/token_generator.hpp"

namespace terrane::common {

// Connects TokenGenerator to the process-wide AccountsManager on the monotonic clock. Stateless.
class TokenGeneratorImpl {
  public:
    TokenGeneratorImpl() = delete;

    // Any thread.
    static std::string getSKUToken(SKUIdentifier sku);
};

}  // namespace terrane::common
