#include "client/pack_operation_state.hpp"

#include <utility>

namespace terrane::common {

PackOperationState::PackOperationState(const std::vector<OfflineDataDomain>& domains)
    : filled_(domains.size(), false), open_(domains.size()) {
    results_.reserve(domains.size());
    for (const auto domain : domains) {
        results_.push_back(PackResult{domain, OfflineDataPack{}, false});
    }
}

void PackOperationState::settle(std::size_t index,
                                expected<OfflineDataPack, OfflineDataError> outcome,
                                bool cancelled) {
    std::lock_guard lock(mutex_);
    if (index >= filled_.size() || filled_[index]) {
        return;
    }
    filled_[index] = true;
    results_[index].outcome = std::move(outcome);
    results_[index].cancelled = cancelled;
    if (--open_ == 0) {
        settled_.notify_all();
    }
}

bool PackOperationState::isSettled(std::size_t index) const {
    std::lock_guard lock(mutex_);
    return index < filled_.size() && filled_[index];
}

bool PackOperationState::done() const {
    std::lock_guard lock(mutex_);
    return open_ == 0;
}

void PackOperationState::wait() const {
    std::unique_lock lock(mutex_);
    settled_.wait(lock, [this] { return open_ == 0; });
}

bool PackOperationState::waitUntil(std::chrono::steady_clock::time_point deadline) const {
    std::unique_lock lock(mutex_);
    return settled_.wait_until(lock, deadline, [this] { return open_ == 0; });
}

}  // namespace terrane::common
