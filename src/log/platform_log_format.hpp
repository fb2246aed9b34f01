#pragma once

#include <string>

#include "terrane/expected.hpp"
#include "terrane/log/logging_level.hpp"

namespace terrane::common {

// The texts of the platform sinks (ConsoleLogBackend, SystemLogBackend), kept in one place so
// that every platform writes the same words. All functions are pure and callable from any thread.

// "<category>" for a non-empty category; an absent or empty one gives "".
std::string platformLogPrefix(const optional<std::string>& category);

// The console's text of a message: "Debug: ", "Info: ", "Warning: " or "Error: ", then the
// prefix, a blank and the message. nullopt for a level outside Debug..Error: nothing is written.
optional<std::string> consoleLogText(LoggingLevel level, const std::string& message,
                                     const optional<std::string>& category);

// The system log's severities, numbered as syslog and the journal number them.
enum class SystemLogSeverity : int {
    Error = 3,
    Info = 6,
    Debug = 7,
};

struct SystemLogEntry {
    SystemLogSeverity severity;
    std::string text;
};

// The system log's entry for a message: the prefix, a blank and the message, with Debug, Info
// and Error at their own severities. Warnings are written at Info severity, told apart only by
// the text "Warning: " in front. nullopt for a level outside Debug..Error.
optional<SystemLogEntry> systemLogEntry(LoggingLevel level, const std::string& message,
                                        const optional<std::string>& category);

}  // namespace terrane::common
