#include "accounts/sku_code.hpp"

namespace terrane::common {

std::string_view skuCode(SKUIdentifier sku) {
    switch (sku) {
        case SKUIdentifier::Code00:
            return "00";
        case SKUIdentifier::Code03:
            return "03";
        case SKUIdentifier::Code04:
            return "04";
        case SKUIdentifier::Code06:
            return "06";
    }
    // The enumeration arrives as a plain integer from the platform layer; any other value is
    // tolerated and simply carries no code.
    return "";
}

}  // namespace terrane::common
