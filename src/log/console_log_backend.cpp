#include "terrane/log/console_log_backend.hpp"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "log/platform_log_format.hpp"

namespace terrane::common {
namespace {

std::string utcNow() {
    const auto now =
        std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto milliseconds = (now.time_since_epoch() % std::chrono::seconds(1)).count();
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char text[40];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(milliseconds));
    return text;
}

}  // namespace

ConsoleLogBackend::ConsoleLogBackend() : ConsoleLogBackend(STDERR_FILENO) {
}

ConsoleLogBackend::ConsoleLogBackend(int fd) : fd_(fd) {
}

void ConsoleLogBackend::writeLog(LoggingLevel level, const std::string& message,
                                 const optional<std::string>& category) {
    const optional<std::string> text = consoleLogText(level, message, category);
    if (!text) {
        return;
    }
    const std::string line = utcNow() + " " + program_invocation_short_name + "[" +
                             std::to_string(::getpid()) + "] " + *text + "\n";
    std::string_view left = line;
    while (!left.empty()) {
        const ssize_t written = ::write(fd_, left.data(), left.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        left.remove_prefix(static_cast<std::size_t>(written));
    }
}

}  // namespace terrane::common
