#include "terrane/log/default_log_backend.hpp"

#include <cstdio>

namespace terrane::common {

void DefaultLogBackend::writeLog(LoggingLevel level, const std::string& message,
                                 const optional<std::string>& category) {
    // Only a present category gets brackets; an empty one still shows as "<>" so that a caller
    // passing "" by mistake can see it.
    const std::string prefix = category ? "<" + *category + ">" : std::string();
    // One printf per message keeps each line whole when several threads log at once.
    switch (level) {
        case LoggingLevel::Info:
            std::printf("%sInfo: %s\n", prefix.c_str(), message.c_str());
            break;
        case LoggingLevel::Warning:
            std::printf("%sWarning: %s\n", prefix.c_str(), message.c_str());
            break;
        case LoggingLevel::Error:
            std::printf("%sError: %s\n", prefix.c_str(), message.c_str());
            break;
        case LoggingLevel::Debug:
        default:
            break;
    }
}

}  // namespace terrane::common
