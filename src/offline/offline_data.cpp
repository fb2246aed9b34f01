#include "terrane/offline/offline_data.hpp"

#include <cstdlib>
#include <ostream>

namespace terrane::common {

std::uint32_t expectedFormat(OfflineDataDomain domain) {
    // Both domains are at format 1; a domain this build does not know has no format it reads.
    return static_cast<std::uint32_t>(domain) < 2 ? 1 : 0;
}

std::string toString(OfflineDataDomain domain) {
    switch (domain) {
        case OfflineDataDomain::Maps:
            return "maps";
        case OfflineDataDomain::Navigation:
            return "navigation";
    }
    // The name ends up in paths on disk: guessing one would scatter packs, so stop instead.
    std::abort();
}

optional<OfflineDataDomain> toDomain(std::string_view text) {
    if (text == "maps") {
        return OfflineDataDomain::Maps;
    }
    if (text == "navigation") {
        return OfflineDataDomain::Navigation;
    }
    return nullopt;
}

std::ostream& operator<<(std::ostream& out, OfflineDataErrorCode code) {
    switch (code) {
        case OfflineDataErrorCode::Unknown:
            return out << "Unknown";
        case OfflineDataErrorCode::NotFound:
            return out << "NotFound";
        case OfflineDataErrorCode::Unauthorized:
            return out << "Unauthorized";
        case OfflineDataErrorCode::RateLimited:
            return out << "RateLimited";
        case OfflineDataErrorCode::Connection:
            return out << "Connection";
        case OfflineDataErrorCode::Server:
            return out << "Server";
        case OfflineDataErrorCode::InvalidResponse:
            return out << "InvalidResponse";
        case OfflineDataErrorCode::Corrupt:
            return out << "Corrupt";
        case OfflineDataErrorCode::Filesystem:
            return out << "Filesystem";
    }
    return out << "<unknown error code>";
}

std::ostream& operator<<(std::ostream& out, const OfflineDataError& error) {
    return out << "error=" << error.code << ", message=" << error.message;
}

std::ostream& operator<<(std::ostream& out, OfflineDataDomain domain) {
    switch (domain) {
        case OfflineDataDomain::Maps:
            return out << "Maps";
        case OfflineDataDomain::Navigation:
            return out << "Navigation";
    }
    return out << "<unknown domain>";
}

std::ostream& operator<<(std::ostream& out, const OfflineDataRegionMetadata& region) {
    return out << region.id << '/' << region.revision;
}

std::ostream& operator<<(std::ostream& out, const OfflineDataPackMetadata& pack) {
    return out << pack.md5_checksum;
}

}  // namespace terrane::common
