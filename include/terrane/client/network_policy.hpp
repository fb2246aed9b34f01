#pragma once

#include <cstdint>

#include "terrane/export.hpp"
#include "terrane/reachability/network_status.hpp"

namespace terrane::common {

// Which networks a download may use. While the network it may use is not there, an
// OfflineClient cancels the download (its partial file stays) and asks again when it returns.
enum class NetworkPolicy : std::uint32_t {
    // Any network that reaches the catalogue.
    AnyNetwork = 0,
    // Not over links paid by the byte: ReachableViaWAN counts as not reachable.
    NotOverWAN = 1,
};

// Whether a download under `policy` may run while the network is `status`. Any thread.
TERRANE_EXPORT bool allowsDownloads(NetworkPolicy policy, NetworkStatus status);

}  // namespace terrane::common
