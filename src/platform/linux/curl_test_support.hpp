#pragma once

// Helpers for the tests of the Linux HTTP service (test programs only).

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/curl_http_service.hpp"
#include "platform/linux/resume_data.hpp"
#include "terrane/http/http_service_interface.hpp"
#include "testing/http_test_server.hpp"

namespace terrane::common::test {

// Long enough for a loaded machine under a sanitizer; reaching it means the test is broken.
inline constexpr std::chrono::seconds kDeadlockGuard{30};

// Collects what the callbacks of one exchange receive, with the thread and the time of each call.
template <typename T>
class Inbox {
  public:
    using Clock = std::chrono::steady_clock;

    auto callback() {
        return [this](T&& item) {
            std::lock_guard lock(mutex_);
            items_.push_back(std::move(item));
            threads_.push_back(std::this_thread::get_id());
            times_.push_back(Clock::now());
            arrived_.notify_all();
        };
    }

    // Waits until the predicate holds for the items; throws when the guard runs out.
    void waitUntil(const std::function<bool(const std::vector<T>&)>& predicate) {
        std::unique_lock lock(mutex_);
        if (!arrived_.wait_for(lock, kDeadlockGuard, [&] { return predicate(items_); })) {
            throw std::runtime_error("the expected callback did not arrive");
        }
    }

    // The count-th item (1-based), once it has arrived.
    T waitFor(std::size_t count) {
        waitUntil([count](const std::vector<T>& items) { return items.size() >= count; });
        std::lock_guard lock(mutex_);
        return items_[count - 1];
    }

    std::vector<T> items() const {
        std::lock_guard lock(mutex_);
        return items_;
    }
    std::vector<std::thread::id> threads() const {
        std::lock_guard lock(mutex_);
        return threads_;
    }
    std::vector<Clock::time_point> times() const {
        std::lock_guard lock(mutex_);
        return times_;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<T> items_;
    std::vector<std::thread::id> threads_;
    std::vector<Clock::time_point> times_;
};

using ResponseInbox = Inbox<HttpResponse>;
using StatusInbox = Inbox<DownloadStatus>;
using AnswerInbox = Inbox<bool>;

// Waits for the final report of a download and returns it.
inline DownloadStatus waitForFinal(StatusInbox& inbox) {
    inbox.waitUntil([](const std::vector<DownloadStatus>& statuses) {
        return !statuses.empty() && isFinal(statuses.back().state);
    });
    return inbox.items().back();
}

inline std::string bodyText(const HttpResponse& response) {
    return {response.result->data.begin(), response.result->data.end()};
}

inline std::string readWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeWholeFile(const std::filesystem::path& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// Waits until the download has reported at least `bytes` received.
inline void waitForBytes(StatusInbox& inbox, std::uint64_t bytes) {
    inbox.waitUntil([bytes](const std::vector<DownloadStatus>& statuses) {
        return !statuses.empty() && statuses.back().receivedBytes >= bytes;
    });
}

// Cancels and returns the answer.
inline bool cancel(HttpServiceInterface& service, std::uint64_t id) {
    AnswerInbox answers;
    service.cancelRequest(id, answers.callback());
    return answers.waitFor(1);
}

// A fresh directory per test under the test temporary directory, removed afterwards.
class ScratchDirectory {
  public:
    ScratchDirectory() {
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        path_ = std::filesystem::path(::testing::TempDir()) /
                ("terrane_curl_" + std::to_string(::getpid()) + "_" + test->test_suite_name() +
                 "_" + test->name());
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

// The Linux HTTP service with a test server, and a destination in a scratch directory of its own
// ("out/pack.bin"). A target that starts with "/" is a path on the test server, anything else a
// URL.
class CurlServiceTest : public ::testing::Test {
  protected:
    CurlServiceTest() { std::filesystem::create_directories(scratch_.path() / "out"); }

    std::string urlOf(const std::string& target) const {
        return target.starts_with("/") ? server_.url(target) : target;
    }

    std::uint64_t start(const std::string& target, StatusInbox& inbox, bool resume = false,
                        std::uint64_t timeout = 0, optional<std::uint64_t> maxBytes = nullopt) {
        HttpRequest request(urlOf(target));
        request.timeout = timeout;
        DownloadOptions options(request, destination_, resume);
        options.maxBytes = maxBytes;
        return service_->download(std::move(options), inbox.callback());
    }

    DownloadStatus download(const std::string& target, bool resume = false,
                            optional<std::uint64_t> maxBytes = nullopt) {
        StatusInbox inbox;
        start(target, inbox, resume, 0, maxBytes);
        return waitForFinal(inbox);
    }

    HttpResponse fetch(HttpRequest request) {
        ResponseInbox inbox;
        service_->request(std::move(request), inbox.callback());
        return inbox.waitFor(1);
    }
    HttpResponse get(const std::string& target) { return fetch(HttpRequest(urlOf(target))); }

    bool cancel(std::uint64_t id) { return test::cancel(*service_, id); }

    std::string part() const { return partialFilePathFor(destination_); }
    std::string rd() const { return resumeDataPathFor(destination_); }

    HttpTestServer server_;
    ScratchDirectory scratch_;
    std::string destination_ = (scratch_.path() / "out" / "pack.bin").string();
    std::shared_ptr<CurlHttpService> service_ = std::make_shared<CurlHttpService>();
};

}  // namespace terrane::common::test
