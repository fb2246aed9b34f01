#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

#include "terrane/client/pack_operation.hpp"

namespace terrane::common {

// The shared state behind PackOperation handles: one result slot per pack, filled once each by
// the client's thread, waited on by anyone. Any thread.
class PackOperationState {
  public:
    explicit PackOperationState(const std::vector<OfflineDataDomain>& domains);

    // Fills slot `index` unless it is filled already; the last one wakes the waiters.
    void settle(std::size_t index, expected<OfflineDataPack, OfflineDataError> outcome,
                bool cancelled = false);
    bool isSettled(std::size_t index) const;

    bool done() const;
    void wait() const;
    bool waitUntil(std::chrono::steady_clock::time_point deadline) const;
    // Valid once done(); never changes after that.
    const std::vector<PackResult>& results() const { return results_; }

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable settled_;
    std::vector<PackResult> results_;
    std::vector<bool> filled_;
    std::size_t open_;
};

}  // namespace terrane::common
