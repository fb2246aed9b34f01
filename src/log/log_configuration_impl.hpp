#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "terrane/log/log_configuration.hpp"
#include "terrane/log/log_writer_backend.hpp"
#include "terrane/log/logging_level.hpp"

namespace terrane::common {

// State behind LogConfiguration. All members may be called from any thread.
class LogConfigurationImpl {
  public:
    // Starts with a new DefaultLogBackend and filter level Debug.
    LogConfigurationImpl();

    LogConfigurationImpl(const LogConfigurationImpl&) = delete;
    LogConfigurationImpl& operator=(const LogConfigurationImpl&) = delete;

    // The process-wide configuration, created under a static mutex on first use.
    static std::shared_ptr<LogConfiguration> getInstance();

    void registerLogWriterBackend(const std::shared_ptr<LogWriterBackend>& backend);
    std::shared_ptr<LogWriterBackend> getLogWriterBackend() const;
    void setFilterLevel(LoggingLevel level);
    LoggingLevel getFilterLevel() const;

  private:
    // Guards only the copy and the swap of the sink pointer, never a sink call, so that an
    // application replacing its sink while other threads log cannot tear the reference: every
    // reader gets either the old or the new sink. (libstdc++ 12's atomic<shared_ptr> would do the
    // same, but ThreadSanitizer cannot see through its lock bit.)
    mutable std::mutex sinkMutex_;
    std::shared_ptr<LogWriterBackend> sink_;
    std::atomic<LoggingLevel> filterLevel_;
};

}  // namespace terrane::common
