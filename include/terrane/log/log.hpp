#pragma once

#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/log/logging_level.hpp"

namespace terrane::common {

// The one entry point through which the library writes its diagnostics. Every operation may be
// called from any thread; the message goes, synchronously and on the calling thread, to the sink
// of LogConfiguration::getInstance() when its level is at least the filter level. Logging never
// reports failure: a filtered message or one the sink does not print simply leaves no trace.
class TERRANE_EXPORT Log {
  public:
    Log() = delete;

    static void debug(const std::string& message, const optional<std::string>& category = nullopt);
    static void info(const std::string& message, const optional<std::string>& category = nullopt);
    static void warning(const std::string& message,
                        const optional<std::string>& category = nullopt);
    static void error(const std::string& message, const optional<std::string>& category = nullopt);
};

}  // namespace terrane::common
