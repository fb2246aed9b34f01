#include "terrane/log/log.hpp"

#include "log/log_impl.hpp"

namespace terrane::common {

void Log::debug(const std::string& message, const optional<std::string>& category) {
    LogImpl::filterLog(LoggingLevel::Debug, message, category);
}

void Log::info(const std::string& message, const optional<std::string>& category) {
    LogImpl::filterLog(LoggingLevel::Info, message, category);
}

void Log::warning(const std::string& message, const optional<std::string>& category) {
    LogImpl::filterLog(LoggingLevel::Warning, message, category);
}

void Log::error(const std::string& message, const optional<std::string>& category) {
    LogImpl::filterLog(LoggingLevel::Error, message, category);
}

}  // namespace terrane::common
