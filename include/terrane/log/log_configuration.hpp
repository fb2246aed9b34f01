#pragma once

#include <memory>

#include "terrane/export.hpp"
#include "terrane/log/log_writer_backend.hpp"
#include "terrane/log/logging_level.hpp"

namespace terrane::common {

class LogConfigurationImpl;

// The sink in force and the minimum level that reaches it. Log consults only the process-wide
// instance from getInstance(); a directly constructed configuration is independent of it.
class TERRANE_EXPORT LogConfiguration {
  public:
    // A fresh configuration: a new DefaultLogBackend as sink and filter level Debug.
    LogConfiguration();
    ~LogConfiguration();

    LogConfiguration(const LogConfiguration&) = delete;
    LogConfiguration& operator=(const LogConfiguration&) = delete;

    // Any thread. Returns the process-wide configuration, created on first use and never replaced
    // afterwards; the caller shares ownership of it.
    static std::shared_ptr<LogConfiguration> getInstance();

    // Any thread. Puts `backend` in force and releases this configuration's reference to the
    // previous sink; a sink call already under way keeps its own reference until it returns.
    // A null pointer is ignored and the previous sink stays. The configuration shares ownership
    // of the sink.
    void registerLogWriterBackend(const std::shared_ptr<LogWriterBackend>& backend);

    // Any thread. Returns a shared reference to the sink in force.
    std::shared_ptr<LogWriterBackend> getLogWriterBackend() const;

    // Any thread; the level is exchanged atomically and read without a lock.
    void setFilterLevel(LoggingLevel level);
    LoggingLevel getFilterLevel() const;

  private:
    std::unique_ptr<LogConfigurationImpl> impl_;
};

}  // namespace terrane::common
