#include "accounts/token_generator_impl.hpp"

#include <chrono>

#include "accounts/accounts_manager.hpp"

namespace terrane::common {

std::string TokenGeneratorImpl::getSKUToken(SKUIdentifier sku) {
    return AccountsManager::getInstance().getSKUToken<std::chrono::steady_clock>(sku);
}

}  // namespace terrane::common
