#pragma once

#include <cstdint>
#include <string>

#include "terrane/client/client_clock.hpp"
#include "terrane/expected.hpp"
#include "terrane/offline/offline_data.hpp"

namespace terrane::common {

// Where the download of one pack stands, as a progress callback receives it. A plain record.
struct PackProgress {
    std::string regionId;
    std::uint32_t revision = 0;
    OfflineDataDomain domain = OfflineDataDomain::Maps;
    // The pack's state as the service last reported it; Available in the final report.
    OfflineDataPackStatus state = OfflineDataPackStatus::Pending;
    // Bytes on disk so far; equal to bytesTotal in the final report of an available pack.
    std::uint64_t bytesDone = 0;
    // The size the catalogue gives for the pack.
    std::uint64_t bytesTotal = 0;
    // Bytes already on disk when the current attempt began, which it resumes from.
    std::uint64_t resumedFrom = 0;
    // 1 for the first request of the pack, then one more for each retry.
    std::uint32_t attempt = 0;
    // Set while the client waits to ask again, on the client's clock.
    optional<ClientClock::TimePoint> nextRetry;
    // Why the last attempt stopped, while a retry is waiting.
    optional<OfflineDataError> lastError;
    // The network policy holds the download back until the network is there again.
    bool waitingForNetwork = false;
};

}  // namespace terrane::common
