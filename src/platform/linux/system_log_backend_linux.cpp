// The entries name the library's message, not the line of this file that sent it.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "log/platform_log_format.hpp"
#include "terrane/log/system_log_backend.hpp"

namespace terrane::common {

// Writes to the journal through libsystemd, or to syslog(3) where no journal listens. Both are
// safe to call from several threads at once, so the sink needs no lock of its own.
class SystemLogBackendImpl final {
  public:
    SystemLogBackendImpl() : journal_(::access("/run/systemd/journal/socket", F_OK) == 0) {}

    void write(LoggingLevel level, const std::string& message,
               const optional<std::string>& category) const {
        const optional<SystemLogEntry> entry = systemLogEntry(level, message, category);
        if (!entry) {
            return;
        }
        const int priority = static_cast<int>(entry->severity);
        if (!journal_) {
            ::syslog(priority, "%s", entry->text.c_str());
            return;
        }
        const std::string fields[] = {
            "MESSAGE=" + entry->text,
            "PRIORITY=" + std::to_string(priority),
            std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name,
            category && !category->empty() ? "TERRANE_CATEGORY=" + *category : std::string(),
        };
        std::array<iovec, 4> vector{};
        int count = 0;
        for (const std::string& field : fields) {
            if (!field.empty()) {
                vector[count++] = {const_cast<char*>(field.data()), field.size()};
            }
        }
        sd_journal_sendv(vector.data(), count);
    }

  private:
    const bool journal_;
};

SystemLogBackend::SystemLogBackend() : impl_(std::make_unique<SystemLogBackendImpl>()) {
}

SystemLogBackend::~SystemLogBackend() = default;

void SystemLogBackend::writeLog(LoggingLevel level, const std::string& message,
                                const optional<std::string>& category) {
    impl_->write(level, message, category);
}

}  // namespace terrane::common
