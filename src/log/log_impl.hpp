#pragma once

#include <string>

#include "terrane/expected.hpp"
#include "terrane/log/logging_level.hpp"

namespace terrane::common {

// The filter behind Log; stateless, everything it needs lives in the process-wide
// LogConfiguration.
class LogImpl {
  public:
    LogImpl() = delete;

    // Any thread. Hands the message to the sink in force when `level` is at least the filter
    // level. The sink runs on the calling thread with no lock held; the reference taken to it
    // keeps it alive for the call even if another thread replaces it meanwhile.
    static void filterLog(LoggingLevel level, const std::string& message,
                          const optional<std::string>& category);
};

}  // namespace terrane::common
