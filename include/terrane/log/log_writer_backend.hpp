#pragma once

#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/log/logging_level.hpp"

namespace terrane::common {

// A log sink. Applications implement it to receive the library's diagnostics and put it in force
// with LogConfiguration::registerLogWriterBackend.
class TERRANE_EXPORT LogWriterBackend {
  public:
    // Defined in the library so that its vtable and type information have one home there.
    virtual ~LogWriterBackend();

    // Writes one message that has already passed the level filter. Called synchronously on the
    // thread that logged, with no library lock held, and possibly from several threads at once:
    // implementations must tolerate concurrent calls. The arguments are only borrowed for the
    // duration of the call. An absent category differs from an empty one.
    virtual void writeLog(LoggingLevel level, const std::string& message,
                          const optional<std::string>& category) = 0;
};

}  // namespace terrane::common
