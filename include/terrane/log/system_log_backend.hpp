#pragma once

#include <memory>
#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/log/log_writer_backend.hpp"

namespace terrane::common {

class SystemLogBackendImpl;

// The system's log as a sink. On Linux: the systemd journal when its socket is there when the
// sink is made (MESSAGE, PRIORITY, SYSLOG_IDENTIFIER as the program's name, and
// TERRANE_CATEGORY for a non-empty category), otherwise syslog(3). Debug, Info and Error keep
// their severities; a warning goes at Info severity and its text begins "Warning: ". The text
// is "<category> message", the "<category>" part only for a non-empty category. Levels outside
// Debug..Error write nothing. Where the platform has no system log, messages go to the console
// as ConsoleLogBackend writes them.
//
// Put it in force with:
//   LogConfiguration::getInstance()->registerLogWriterBackend(std::make_shared<SystemLogBackend>());
class TERRANE_EXPORT SystemLogBackend final : public LogWriterBackend {
  public:
    // Any thread; chooses the destination once, here.
    SystemLogBackend();
    ~SystemLogBackend() override;
    SystemLogBackend(const SystemLogBackend&) = delete;
    SystemLogBackend& operator=(const SystemLogBackend&) = delete;

    // Any thread, concurrently too. Failures of the system log are not reported.
    void writeLog(LoggingLevel level, const std::string& message,
                  const optional<std::string>& category) override;

  private:
    std::unique_ptr<SystemLogBackendImpl> impl_;
};

}  // namespace terrane::common
