#include "terrane/log/console_log_backend.hpp"
#include "terrane/log/system_log_backend.hpp"

namespace terrane::common {

// A build without a platform system log: the console stands in for it.
class SystemLogBackendImpl final {
  public:
    ConsoleLogBackend console;
};

SystemLogBackend::SystemLogBackend() : impl_(std::make_unique<SystemLogBackendImpl>()) {
}

SystemLogBackend::~SystemLogBackend() = default;

void SystemLogBackend::writeLog(LoggingLevel level, const std::string& message,
                                const optional<std::string>& category) {
    impl_->console.writeLog(level, message, category);
}

}  // namespace terrane::common
