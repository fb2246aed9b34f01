#include "version/version_impl.hpp"

namespace terrane::common {

namespace {
// Kept in step with the three numbers by the static_assert below; the plain C entry point hands
// out this very array, so it must stay a zero-terminated static.
constexpr char versionString[] = "9.2.0";

constexpr bool versionStringMatchesNumbers() {
    return versionString[0] == '0' + VersionImpl::getMajorVersion() &&
           versionString[2] == '0' + VersionImpl::getMinorVersion() &&
           versionString[4] == '0' + VersionImpl::getPatchVersion() && versionString[1] == '.' &&
           versionString[3] == '.' && sizeof versionString == 6;
}
static_assert(versionStringMatchesNumbers());
}  // namespace

std::string_view VersionImpl::getCommonSDKVersionString() {
    return versionString;
}

}  // namespace terrane::common
