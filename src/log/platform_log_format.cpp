#include "log/platform_log_format.hpp"

namespace terrane::common {

std::string platformLogPrefix(const optional<std::string>& category) {
    return category && !category->empty() ? "<" + *category + ">" : std::string();
}

optional<std::string> consoleLogText(LoggingLevel level, const std::string& message,
                                     const optional<std::string>& category) {
    const char* word = nullptr;
    switch (level) {
        case LoggingLevel::Debug:
            word = "Debug: ";
            break;
        case LoggingLevel::Info:
            word = "Info: ";
            break;
        case LoggingLevel::Warning:
            word = "Warning: ";
            break;
        case LoggingLevel::Error:
            word = "Error: ";
            break;
        default:
            return nullopt;
    }
    return word + platformLogPrefix(category) + " " + message;
}

optional<SystemLogEntry> systemLogEntry(LoggingLevel level, const std::string& message,
                                        const optional<std::string>& category) {
    std::string text = platformLogPrefix(category) + " " + message;
    switch (level) {
        case LoggingLevel::Debug:
            return SystemLogEntry{SystemLogSeverity::Debug, std::move(text)};
        case LoggingLevel::Info:
            return SystemLogEntry{SystemLogSeverity::Info, std::move(text)};
        case LoggingLevel::Warning:
            return SystemLogEntry{SystemLogSeverity::Info, "Warning: " + text};
        case LoggingLevel::Error:
            return SystemLogEntry{SystemLogSeverity::Error, std::move(text)};
        default:
            return nullopt;
    }
}

}  // namespace terrane::common
