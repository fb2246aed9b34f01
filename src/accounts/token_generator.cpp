#include "terrane/accounts/token_generator.hpp"

#include "accounts/token_generator_impl.hpp"

namespace terrane::common {

std::string TokenGenerator::getSKUToken(SKUIdentifier sku) {
    return TokenGeneratorImpl::getSKUToken(sku);
}

}  // namespace terrane::common
