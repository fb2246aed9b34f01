#include "terrane/log/console_log_backend.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "util/file_descriptor.hpp"

namespace terrane::common {
namespace {

TEST(ConsoleLogBackendTest, WritesOneStampedLinePerMessageInTheConsoleFormats) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const base::io::FileDescriptor writer(ends[0]);
    const base::io::FileDescriptor reader(ends[1]);
    ConsoleLogBackend sink(writer.get());
    // "<ISO time> <program>[<pid>] ", then the text.
    const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z " +
                              std::string(program_invocation_short_name) + "\\[" +
                              std::to_string(::getpid()) + "\\] ";

    const struct {
        LoggingLevel level;
        const char* message;
        optional<std::string> category;
        const char* text;  // null: nothing is written
    } rows[] = {
        {LoggingLevel::Debug, "d", nullopt, "Debug:  d"},
        {LoggingLevel::Info, "i", std::string("net"), "Info: <net> i"},
        {LoggingLevel::Warning, "w", std::string(), "Warning:  w"},
        {LoggingLevel::Error, "100%s", std::string("disk io"), "Error: <disk io> 100%s"},
        {static_cast<LoggingLevel>(4), "x", nullopt, nullptr},
    };
    for (const auto& row : rows) {
        sink.writeLog(row.level, row.message, row.category);
        char buffer[512];
        const ssize_t length = ::recv(reader.get(), buffer, sizeof buffer, MSG_DONTWAIT);
        const std::string line = length > 0 ? std::string(buffer, length) : std::string();
        if (row.text == nullptr) {
            EXPECT_EQ(line, "") << row.message;
        } else {
            EXPECT_THAT(line, testing::MatchesRegex(stamp + row.text + "\n"));
        }
    }
}

}  // namespace
}  // namespace terrane::common
