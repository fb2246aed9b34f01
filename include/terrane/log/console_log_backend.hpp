#pragma once

#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/log/log_writer_backend.hpp"

namespace terrane::common {

// A console sink for programs run by people: one line per message, on standard error unless
// told otherwise, "<UTC time> <program>[<pid>] Level: <category> message", where the time is
// ISO 8601 with milliseconds and "<category>" appears only for a non-empty category. Unlike
// DefaultLogBackend it prints debug messages too. Levels outside Debug..Error write nothing.
class TERRANE_EXPORT ConsoleLogBackend final : public LogWriterBackend {
  public:
    // Writes to standard error.
    ConsoleLogBackend();
    // Writes to `fd`, which stays the caller's: it must stay open while the sink is in use, and
    // the sink never closes it.
    explicit ConsoleLogBackend(int fd);

    // Any thread. Each line goes out in one write, so lines of concurrent calls never mix.
    void writeLog(LoggingLevel level, const std::string& message,
                  const optional<std::string>& category) override;

  private:
    int fd_;
};

}  // namespace terrane::common
