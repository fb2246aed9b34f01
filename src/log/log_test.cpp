#include "terrane/log/log.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "terrane/log/default_log_backend.hpp"
#include "terrane/log/log_configuration.hpp"
#include "terrane/log/log_writer_backend.hpp"

namespace terrane::common {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Entry {
    LoggingLevel level;
    std::string message;
    optional<std::string> category;

    bool operator==(const Entry&) const = default;
};

void PrintTo(const Entry& entry, std::ostream* os) {
    *os << "{" << static_cast<int>(entry.level) << ", \"" << entry.message << "\", "
        << (entry.category ? "\"" + *entry.category + "\"" : std::string("nullopt")) << "}";
}

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

class CountingSink : public LogWriterBackend {
  public:
    void writeLog(LoggingLevel, const std::string&, const optional<std::string>&) override {
        count.fetch_add(1);
    }
    std::atomic<int> count{0};
};

// Redirects file descriptor 1 into a temporary file for the lifetime of the object, so that what
// the default sink prints with printf can be compared byte for byte.
class StdoutCapture {
  public:
    StdoutCapture() : file_(std::tmpfile()) {
        std::fflush(stdout);
        saved_ = ::dup(STDOUT_FILENO);
        ::dup2(::fileno(file_), STDOUT_FILENO);
    }
    ~StdoutCapture() {
        restore();
        std::fclose(file_);
    }

    std::string text() {
        restore();
        std::string result;
        std::rewind(file_);
        char buffer[256];
        size_t n = 0;
        while ((n = std::fread(buffer, 1, sizeof buffer, file_)) > 0) {
            result.append(buffer, n);
        }
        return result;
    }

  private:
    void restore() {
        if (saved_ >= 0) {
            std::fflush(stdout);
            ::dup2(saved_, STDOUT_FILENO);
            ::close(saved_);
            saved_ = -1;
        }
    }

    std::FILE* file_;
    int saved_ = -1;
};

// Every test leaves the process-wide configuration as it found it.
class LogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        configuration_ = LogConfiguration::getInstance();
        savedSink_ = configuration_->getLogWriterBackend();
        savedLevel_ = configuration_->getFilterLevel();
    }
    void TearDown() override {
        configuration_->registerLogWriterBackend(savedSink_);
        configuration_->setFilterLevel(savedLevel_);
    }

    std::shared_ptr<RecordingSink> installRecordingSink() {
        auto sink = std::make_shared<RecordingSink>();
        configuration_->registerLogWriterBackend(sink);
        return sink;
    }

    static void logAllLevels() {
        Log::debug("d");
        Log::info("i");
        Log::warning("w");
        Log::error("e");
    }

    std::shared_ptr<LogConfiguration> configuration_;

  private:
    std::shared_ptr<LogWriterBackend> savedSink_;
    LoggingLevel savedLevel_ = LoggingLevel::Debug;
};

TEST_F(LogTest, FilterLevelLetsThroughItsOwnLevelAndAboveInOrder) {
    const Entry d{LoggingLevel::Debug, "d", nullopt}, i{LoggingLevel::Info, "i", nullopt},
        w{LoggingLevel::Warning, "w", nullopt}, e{LoggingLevel::Error, "e", nullopt};
    const std::vector<std::pair<LoggingLevel, std::vector<Entry>>> cases = {
        {LoggingLevel::Debug, {d, i, w, e}},
        {LoggingLevel::Info, {i, w, e}},
        {LoggingLevel::Warning, {w, e}},
        {LoggingLevel::Error, {e}},
    };
    for (const auto& [filter, expected] : cases) {
        auto sink = installRecordingSink();
        configuration_->setFilterLevel(filter);
        EXPECT_EQ(configuration_->getFilterLevel(), filter);
        logAllLevels();
        EXPECT_EQ(sink->entries(), expected) << "filter " << static_cast<int>(filter);
    }
}

TEST_F(LogTest, SinkReceivesCategoryAsGivenKeepingEmptyDistinctFromAbsent) {
    auto sink = installRecordingSink();
    Log::info("plain");
    Log::warning("tagged", std::string("net"));
    Log::error("empty", std::string());
    EXPECT_THAT(sink->entries(), ElementsAre(Entry{LoggingLevel::Info, "plain", nullopt},
                                             Entry{LoggingLevel::Warning, "tagged", "net"},
                                             Entry{LoggingLevel::Error, "empty", ""}));
}

TEST_F(LogTest, RegisteringNullKeepsThePreviousSink) {
    auto sink = installRecordingSink();
    configuration_->registerLogWriterBackend(nullptr);
    EXPECT_EQ(configuration_->getLogWriterBackend(), sink);
    Log::info("still here");
    EXPECT_THAT(sink->entries(), ElementsAre(Entry{LoggingLevel::Info, "still here", nullopt}));
}

TEST_F(LogTest, ReplacingTheSinkReleasesTheOldOneAndRedirectsMessages) {
    auto first = installRecordingSink();
    std::weak_ptr<RecordingSink> firstWatch = first;
    Log::info("one");
    auto second = installRecordingSink();
    Log::info("two");

    EXPECT_THAT(first->entries(), ElementsAre(Entry{LoggingLevel::Info, "one", nullopt}));
    EXPECT_THAT(second->entries(), ElementsAre(Entry{LoggingLevel::Info, "two", nullopt}));
    first.reset();
    EXPECT_TRUE(firstWatch.expired());
}

TEST_F(LogTest, GetInstanceAlwaysHandsOutTheSameConfiguration) {
    std::vector<std::shared_ptr<LogConfiguration>> seen(4);
    std::vector<std::thread> threads;
    for (auto& slot : seen) {
        threads.emplace_back([&slot] { slot = LogConfiguration::getInstance(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const auto& instance : seen) {
        EXPECT_EQ(instance, configuration_);
    }
}

TEST_F(LogTest, DirectlyConstructedConfigurationIsIndependentOfTheProcessWideOne) {
    auto global = installRecordingSink();
    LogConfiguration own;
    EXPECT_NE(dynamic_cast<DefaultLogBackend*>(own.getLogWriterBackend().get()), nullptr);
    EXPECT_EQ(own.getFilterLevel(), LoggingLevel::Debug);

    auto ownSink = std::make_shared<RecordingSink>();
    own.registerLogWriterBackend(ownSink);
    own.setFilterLevel(LoggingLevel::Error);
    Log::info("to the process-wide sink");

    EXPECT_THAT(ownSink->entries(), IsEmpty());
    EXPECT_THAT(global->entries(),
                ElementsAre(Entry{LoggingLevel::Info, "to the process-wide sink", nullopt}));
    EXPECT_EQ(configuration_->getFilterLevel(), LoggingLevel::Debug);
}

TEST_F(LogTest, DefaultSinkPrintsOneLinePerLevelWithCategoryInBrackets) {
    DefaultLogBackend sink;
    StdoutCapture capture;
    sink.writeLog(LoggingLevel::Info, "up", nullopt);
    sink.writeLog(LoggingLevel::Warning, "down", std::string("net"));
    sink.writeLog(LoggingLevel::Error, "gone", std::string("disk io"));
    sink.writeLog(LoggingLevel::Info, "blank", std::string());
    EXPECT_EQ(capture.text(),
              "Info: up\n"
              "<net>Warning: down\n"
              "<disk io>Error: gone\n"
              "<>Info: blank\n");
}

TEST_F(LogTest, DefaultSinkIsSilentForDebugAndUnknownLevels) {
    DefaultLogBackend sink;
    StdoutCapture capture;
    sink.writeLog(LoggingLevel::Debug, "hidden", std::string("c"));
    sink.writeLog(static_cast<LoggingLevel>(7), "hidden", nullopt);
    sink.writeLog(static_cast<LoggingLevel>(-1), "hidden", nullopt);
    EXPECT_EQ(capture.text(), "");
}

TEST_F(LogTest, DefaultSinkPrintsMessageTextLiterally) {
    DefaultLogBackend sink;
    StdoutCapture capture;
    sink.writeLog(LoggingLevel::Info, "100%s done %d", std::string("%n"));
    EXPECT_EQ(capture.text(), "<%n>Info: 100%s done %d\n");
}

TEST_F(LogTest, DefaultConfigurationPrintsInfoButNotDebugThroughLog) {
    configuration_->registerLogWriterBackend(std::make_shared<DefaultLogBackend>());
    configuration_->setFilterLevel(LoggingLevel::Debug);
    StdoutCapture capture;
    Log::debug("x");
    Log::info("x");
    Log::info("x", std::string("c"));
    EXPECT_EQ(capture.text(), "Info: x\n<c>Info: x\n");
}

TEST_F(LogTest, ConcurrentLoggersEachKeepTheirOrderAndLoseNothing) {
    auto sink = installRecordingSink();
    configuration_->setFilterLevel(LoggingLevel::Info);
    constexpr int kThreads = 4;
    constexpr int kMessages = 500;

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::string category = "thread" + std::to_string(t);
            for (int i = 0; i < kMessages; ++i) {
                Log::debug("dropped", category);
                Log::info(std::to_string(i), category);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    std::vector<int> next(kThreads, 0);
    const auto entries = sink->entries();
    ASSERT_EQ(entries.size(), static_cast<size_t>(kThreads * kMessages));
    for (const auto& entry : entries) {
        ASSERT_EQ(entry.level, LoggingLevel::Info);
        ASSERT_TRUE(entry.category.has_value());
        const int t = std::stoi(entry.category->substr(6));
        EXPECT_EQ(entry.message, std::to_string(next[t])) << *entry.category;
        ++next[t];
    }
}

TEST_F(LogTest, SinksReplacedWhileOthersLogReceiveEveryMessageExactlyOnce) {
    constexpr int kThreads = 3;
    constexpr int kMessages = 2000;
    constexpr int kSinks = 200;
    std::vector<std::shared_ptr<CountingSink>> sinks;
    sinks.push_back(std::make_shared<CountingSink>());
    configuration_->registerLogWriterBackend(sinks.back());

    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&running] {
            for (int i = 0; i < kMessages; ++i) {
                Log::warning("message");
            }
            running.fetch_sub(1);
        });
    }
    // Swap sinks only while the loggers are still at work, so the swaps race with them.
    while (running.load() > 0 && static_cast<int>(sinks.size()) < kSinks) {
        if (sinks.back()->count.load() > 0) {
            sinks.push_back(std::make_shared<CountingSink>());
            configuration_->registerLogWriterBackend(sinks.back());
        }
        std::this_thread::yield();
    }
    for (auto& thread : threads) {
        thread.join();
    }

    int total = 0;
    for (const auto& sink : sinks) {
        total += sink->count.load();
    }
    EXPECT_EQ(total, kThreads * kMessages);
    EXPECT_EQ(configuration_->getLogWriterBackend(), sinks.back());
}

// Sinks that log when they go away must not trip over the swap that releases them.
class FarewellSink : public LogWriterBackend {
  public:
    ~FarewellSink() override { Log::warning("sink released", std::string("farewell")); }
    void writeLog(LoggingLevel, const std::string&, const optional<std::string>&) override {}
};

TEST_F(LogTest, SinkLoggingFromItsDestructorReachesItsSuccessor) {
    configuration_->registerLogWriterBackend(std::make_shared<FarewellSink>());
    auto next = installRecordingSink();
    EXPECT_THAT(next->entries(),
                ElementsAre(Entry{LoggingLevel::Warning, "sink released", "farewell"}));
}

// A sink that parks inside writeLog until released, to replace it while a call is under way.
class ParkingSink : public LogWriterBackend {
  public:
    void writeLog(LoggingLevel, const std::string&, const optional<std::string>&) override {
        std::unique_lock<std::mutex> lock(mutex_);
        entered_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return released_; });
    }
    bool waitUntilEntered() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(30), [this] { return entered_; });
    }
    void release() {
        const std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool entered_ = false;
    bool released_ = false;
};

TEST_F(LogTest, SinkReplacedDuringItsOwnCallStaysAliveUntilTheCallReturns) {
    auto parking = std::make_shared<ParkingSink>();
    std::weak_ptr<ParkingSink> parkingWatch = parking;
    configuration_->registerLogWriterBackend(parking);

    std::thread logger([] { Log::error("slow"); });
    ASSERT_TRUE(parking->waitUntilEntered());

    auto next = installRecordingSink();
    ParkingSink* raw = parking.get();
    parking.reset();
    EXPECT_FALSE(parkingWatch.expired()) << "the call under way must keep its sink alive";

    Log::info("after the swap");
    raw->release();
    logger.join();

    EXPECT_TRUE(parkingWatch.expired());
    EXPECT_THAT(next->entries(), ElementsAre(Entry{LoggingLevel::Info, "after the swap", nullopt}));
}

}  // namespace
}  // namespace terrane::common
