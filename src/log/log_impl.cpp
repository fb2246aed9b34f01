#include "log/log_impl.hpp"

#include <memory>

#include "terrane/log/log_configuration.hpp"

namespace terrane::common {

void LogImpl::filterLog(LoggingLevel level, const std::string& message,
                        const optional<std::string>& category) {
    const std::shared_ptr<LogConfiguration> configuration = LogConfiguration::getInstance();
    const std::shared_ptr<LogWriterBackend> sink = configuration->getLogWriterBackend();
    if (!sink) {
        return;
    }
    if (configuration->getFilterLevel() <= level) {
        sink->writeLog(level, message, category);
    }
}

}  // namespace terrane::common
