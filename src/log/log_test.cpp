#include "terrane/log/log.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "terrane/log/default_log_backend.hpp"
#include "terrane/log/log_configuration.hpp"
#include "terrane/log/log_writer_backend.hpp"

namespace terrane::common {
namespace {

using ::testing::ElementsAre;

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
        {LoggingLevel::Info, {i, w, e}},
        {LoggingLevel::Warning, {w, e}},
        {LoggingLevel::Error, {e}},
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

TEST_F(LogTest, TheDefaultSinkPrintsInfoAndAboveLiterallyWithTheCategoryInBrackets) {
    const std::vector<std::tuple<LoggingLevel, std::string, optional<std::string>, std::string>>
        rows{
            {LoggingLevel::Info, "up", nullopt, "Info: up\n"},
            {LoggingLevel::Warning, "down", "net", "<net>Warning: down\n"},
            {LoggingLevel::Error, "blank", "", "<>Error: blank\n"},
            {LoggingLevel::Info, "100%s done %d", "%n", "<%n>Info: 100%s done %d\n"},
            {LoggingLevel::Debug, "hidden", "c", ""},
            {static_cast<LoggingLevel>(7), "hidden", nullopt, ""},
        };
    DefaultLogBackend sink;
    for (const auto& [level, message, category, expected] : rows) {
        testing::internal::CaptureStdout();
        sink.writeLog(level, message, category);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), expected) << message;
    }
}

TEST_F(LogTest, SinksSwappedWhileThreadsLogGetEveryMessageOnceAndInEachThreadsOrder) {
    constexpr int kThreads = 3;
    constexpr int kMessages = 2000;
    std::vector<std::shared_ptr<RecordingSink>> sinks{installRecordingSink()};
    std::atomic<int> running{kThreads};
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&running, t] {
                for (int i = 0; i < kMessages; ++i) {
                    Log::info(std::to_string(i), std::to_string(t));
                }
                running.fetch_sub(1);
            });
        }
        // Swapped only while the loggers are still at work, so the swaps race with them.
        while (running.load() > 0 && sinks.size() < 200) {
            if (!sinks.back()->entries().empty()) {
                sinks.push_back(installRecordingSink());
            }
        }
    }
    std::vector<int> next(kThreads, 0);
    for (const auto& sink : sinks) {
        for (const auto& [level, message, category] : sink->entries()) {
            EXPECT_EQ(message, std::to_string(next.at(std::stoi(category.value_or("-1")))++));
        }
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kMessages));
}

}  // namespace
}  // namespace terrane::common
