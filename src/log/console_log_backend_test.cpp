#include "terrane/log/console_log_backend.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "terrane/log/log.hpp"
#include "terrane/log/log_configuration.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::common {
namespace {

using base::io::FileDescriptor;

// The text after "<ISO time> <program>[<pid>] ", or nullopt when the line does not start so.
optional<std::string> afterStamp(const std::string& line) {
    constexpr std::string_view shape = "dddd-dd-ddTdd:dd:dd.dddZ ";
    if (line.size() < shape.size()) {
        return nullopt;
    }
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const bool digit = line[i] >= '0' && line[i] <= '9';
        if (shape[i] == 'd' ? !digit : line[i] != shape[i]) {
            return nullopt;
        }
    }
    const std::string source =
        std::string(program_invocation_short_name) + "[" + std::to_string(::getpid()) + "] ";
    if (line.compare(shape.size(), source.size(), source) != 0) {
        return nullopt;
    }
    return line.substr(shape.size() + source.size());
}

TEST(ConsoleLogBackendTest, WritesOneStampedLinePerMessageInTheConsoleFormats) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const FileDescriptor writer(ends[0]);
    const FileDescriptor reader(ends[1]);
    ConsoleLogBackend sink(writer.get());

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
        {static_cast<LoggingLevel>(-1), "x", nullopt, nullptr},
    };
    for (const auto& row : rows) {
        sink.writeLog(row.level, row.message, row.category);
        char buffer[512];
        const ssize_t length = ::recv(reader.get(), buffer, sizeof buffer, MSG_DONTWAIT);
        const std::string line = length > 0 ? std::string(buffer, length) : std::string();
        if (row.text == nullptr) {
            EXPECT_EQ(line, "") << row.message;
        } else {
            EXPECT_EQ(afterStamp(line), std::string(row.text) + "\n") << line;
        }
    }
}

TEST(ConsoleLogBackendTest, LinesStayWholeWhileThreadsLogAndTheSinkIsSwapped) {
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    const auto configuration = LogConfiguration::getInstance();
    const auto saved = configuration->getLogWriterBackend();
    configuration->registerLogWriterBackend(std::make_shared<ConsoleLogBackend>(::fileno(file)));

    constexpr int kThreads = 4;
    constexpr int kMessages = 300;
    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&running, t] {
            for (int i = 0; i < kMessages; ++i) {
                Log::info("message " + std::to_string(i), "thread" + std::to_string(t));
            }
            running.fetch_sub(1);
        });
    }
    while (running.load() > 0) {
        configuration->registerLogWriterBackend(
            std::make_shared<ConsoleLogBackend>(::fileno(file)));
        std::this_thread::yield();
    }
    for (auto& thread : threads) {
        thread.join();
    }
    configuration->registerLogWriterBackend(saved);

    std::rewind(file);
    std::ostringstream text;
    char buffer[4096];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        text.write(buffer, static_cast<std::streamsize>(n));
    }
    std::fclose(file);
    // Every line whole, and every message of every thread there once.
    std::set<std::string> seen;
    std::istringstream lines(text.str());
    for (std::string line; std::getline(lines, line);) {
        const auto rest = afterStamp(line + "\n");
        ASSERT_TRUE(rest && rest->starts_with("Info: <thread")) << line;
        seen.insert(*rest);
    }
    const int count = static_cast<int>(seen.size());
    EXPECT_EQ(count, kThreads * kMessages);
}

}  // namespace
}  // namespace terrane::common
