#pragma once

// Helpers for the tests of the Linux HTTP service (test programs only).

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "terrane/http/http_service_interface.hpp"
#include "testing/storage_tree.hpp"
#include "util/file_io.hpp"

namespace terrane::common::test {

// Collects what the callbacks of one exchange receive, with the thread of each call.
template <typename T>
class Inbox {
  public:
    auto callback() {
        return [this](T&& item) {
            std::lock_guard lock(mutex_);
            items_.push_back(std::move(item));
            threads_.push_back(std::this_thread::get_id());
            arrived_.notify_all();
        };
    }

    // Waits until the predicate holds for the items; throws when the guard (long enough for a
    // loaded machine under a sanitizer) runs out.
    void waitUntil(const std::function<bool(const std::vector<T>&)>& predicate) {
        std::unique_lock lock(mutex_);
        if (!arrived_.wait_for(lock, std::chrono::seconds(30), [&] { return predicate(items_); })) {
            throw std::runtime_error("the expected callback did not arrive");
        }
    }

    // The count-th item (1-based), once it has arrived.
    T waitFor(std::size_t count) {
        waitUntil([count](const std::vector<T>& items) { return items.size() >= count; });
        return items()[count - 1];
    }

    std::vector<T> items() const {
        std::lock_guard lock(mutex_);
        return items_;
    }
    std::vector<std::thread::id> threads() const {
        std::lock_guard lock(mutex_);
        return threads_;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<T> items_;
    std::vector<std::thread::id> threads_;
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

// Waits until the download has reported at least `bytes` received.
inline void waitForBytes(StatusInbox& inbox, std::uint64_t bytes) {
    inbox.waitUntil([bytes](const std::vector<DownloadStatus>& statuses) {
        return !statuses.empty() && statuses.back().receivedBytes >= bytes;
    });
}

inline std::string bodyText(const HttpResponse& response) {
    return {response.result->data.begin(), response.result->data.end()};
}

inline std::string readWholeFile(const std::filesystem::path& path) {
    return base::io::readFile(path).value_or("");
}

inline void writeWholeFile(const std::filesystem::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// Cancels and returns the answer.
inline bool cancel(HttpServiceInterface& service, std::uint64_t id) {
    AnswerInbox answers;
    service.cancelRequest(id, answers.callback());
    return answers.waitFor(1);
}

}  // namespace terrane::common::test
