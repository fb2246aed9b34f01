#pragma once

#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/log/log_writer_backend.hpp"

namespace terrane::common {

// The console sink in force until another one is registered: one line per message on standard
// output, "<category>Level: message". Debug messages are deliberately not printed, whatever the
// filter level says, so that a plain console stays readable.
class TERRANE_EXPORT DefaultLogBackend final : public LogWriterBackend {
  public:
    // Any thread; stateless, so concurrent calls only share the C library's stdout lock.
    void writeLog(LoggingLevel level, const std::string& message,
                  const optional<std::string>& category) override;
};

}  // namespace terrane::common
