#include "terrane/version/version.hpp"

#include "version/version_impl.hpp"

namespace terrane::common {

std::int32_t Version::getMajorVersion() {
    return VersionImpl::getMajorVersion();
}

std::int32_t Version::getMinorVersion() {
    return VersionImpl::getMinorVersion();
}

std::int32_t Version::getPatchVersion() {
    return VersionImpl::getPatchVersion();
}

std::string Version::getCommonSDKVersionString() {
    return std::string(VersionImpl::getCommonSDKVersionString());
}

}  // namespace terrane::common

std::int32_t terrane_common_get_major_version() {
    return terrane::common::VersionImpl::getMajorVersion();
}

std::int32_t terrane_common_get_minor_version() {
    return terrane::common::VersionImpl::getMinorVersion();
}

std::int32_t terrane_common_get_patch_version() {
    return terrane::common::VersionImpl::getPatchVersion();
}

const char* terrane_common_get_version_string() {
    return terrane::common::VersionImpl::getCommonSDKVersionString().data();
}
