#include "terrane/log/log.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "terrane/log/console_log_backend.hpp"
#include "terrane/log/default_log_backend.hpp"
#include "terrane/log/log_configuration.hpp"
#include "terrane/log/log_writer_backend.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::common {
namespace {

using ::testing::MatchesRegex;

using Entry = std::tuple<LoggingLevel, std::string, optional<std::string>>;

class RecordingSink : public LogWriterBackend {
  public:
    void writeLog(LoggingLevel level, const std::string& message,
                  const optional<std::string>& category) override {
        const std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back({level, message, category});
    }

    std::vector<Entry> entries() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
};

// Every test leaves the process-wide configuration as it found it.
class LogTest : public ::testing::Test {
  protected:
    void TearDown() override {
        configuration_->registerLogWriterBackend(savedSink_);
        configuration_->setFilterLevel(savedLevel_);
    }

    std::shared_ptr<RecordingSink> installRecordingSink() {
        auto sink = std::make_shared<RecordingSink>();
        configuration_->registerLogWriterBackend(sink);
        return sink;
    }

    const std::shared_ptr<LogConfiguration> configuration_ = LogConfiguration::getInstance();
    const std::shared_ptr<LogWriterBackend> savedSink_ = configuration_->getLogWriterBackend();
    const LoggingLevel savedLevel_ = configuration_->getFilterLevel();
};

// Each row's sink takes over from the last; registering null changes nothing.
TEST_F(LogTest, TheFilterLetsThroughItsLevelAndAboveWithTheCategoryAsGiven) {
    const Entry d{LoggingLevel::Debug, "d", nullopt}, i{LoggingLevel::Info, "i", "net"},
        w{LoggingLevel::Warning, "w", ""}, e{LoggingLevel::Error, "e", nullopt};
    const std::vector<std::pair<LoggingLevel, std::vector<Entry>>> rows = {
        {LoggingLevel::Debug, {d, i, w, e}},
        {LoggingLevel::Warning, {w, e}},
    };
    for (const auto& [filter, expected] : rows) {
        auto sink = installRecordingSink();
        configuration_->registerLogWriterBackend(nullptr);
        configuration_->setFilterLevel(filter);
        Log::debug("d");
        Log::info("i", std::string("net"));
        Log::warning("w", std::string());
        Log::error("e");
        EXPECT_EQ(sink->entries(), expected) << "filter " << static_cast<int>(filter);
    }
}

TEST_F(LogTest, SinksSwappedWhileAThreadLogsGetEveryMessageOnceAndInOrder) {
    constexpr int kMessages = 5000;
    std::vector<std::shared_ptr<RecordingSink>> sinks{installRecordingSink()};
    std::atomic<bool> done{false};
    const std::jthread logger([&done] {
        for (int i = 0; i < kMessages; ++i) {
            Log::info(std::to_string(i));
        }
        done.store(true);
    });
    // Swapped only while the logger is still at work, so the swaps race with it.
    while (!done.load()) {
        if (!sinks.back()->entries().empty()) {
            sinks.push_back(installRecordingSink());
        }
    }
    int next = 0;
    for (const auto& sink : sinks) {
        for (const auto& [level, message, category] : sink->entries()) {
            EXPECT_EQ(message, std::to_string(next++));
        }
    }
    EXPECT_EQ(next, kMessages);
}

// Neither sink runs the message or the category through printf formatting.
TEST(LogSinks, EachSinkWritesEveryLevelAndCategoryInItsFormat) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const base::io::FileDescriptor writer(ends[0]);
    const base::io::FileDescriptor reader(ends[1]);
    ConsoleLogBackend console(writer.get());
    DefaultLogBackend standardOutput;
    // "<ISO time> <program>[<pid>] ", then the text.
    const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z " +
                              std::string(program_invocation_short_name) + "\\[" +
                              std::to_string(::getpid()) + "\\] ";
    // The level, the message and its category, what the default sink prints, and what the console
    // sink writes after the stamp.
    const std::tuple<LoggingLevel, const char*, optional<std::string>, std::string, std::string>
        rows[] = {
            {LoggingLevel::Debug, "d", nullopt, "", "Debug:  d"},
            {LoggingLevel::Info, "up", nullopt, "Info: up\n", "Info:  up"},
            {LoggingLevel::Info, "i", "net", "<net>Info: i\n", "Info: <net> i"},
            {LoggingLevel::Warning, "w", "", "<>Warning: w\n", "Warning:  w"},
            {LoggingLevel::Error, "100%s done %d", "%n", "<%n>Error: 100%s done %d\n",
             "Error: <%n> 100%s done %d"},
        };
    for (const auto& [level, message, category, printed, written] : rows) {
        testing::internal::CaptureStdout();
        standardOutput.writeLog(level, message, category);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), printed) << message;
        console.writeLog(level, message, category);
        char buffer[512];
        const ssize_t length = ::recv(reader.get(), buffer, sizeof buffer, MSG_DONTWAIT);
        const std::string line = length > 0 ? std::string(buffer, length) : std::string();
        EXPECT_THAT(line, MatchesRegex(stamp + written + "\n"));
    }
}

}  // namespace
}  // namespace terrane::common
