#include "terrane/client/pack_operation.hpp"

#include <utility>

#include "client/pack_operation_state.hpp"

namespace terrane::common {

PackOperation::PackOperation(std::shared_ptr<PackOperationState> state) : state_(std::move(state)) {
}

bool PackOperation::done() const {
    return state_->done();
}

void PackOperation::wait() const {
    state_->wait();
}

bool PackOperation::wait_for(std::chrono::nanoseconds timeout) const {
    // Saturates instead of overflowing, so that a timeout of "for ever" works.
    const auto now = std::chrono::steady_clock::now();
    const auto deadline = timeout >= std::chrono::steady_clock::time_point::max() - now
                              ? std::chrono::steady_clock::time_point::max()
                              : now + timeout;
    return state_->waitUntil(deadline);
}

const std::vector<PackResult>& PackOperation::result() const {
    state_->wait();
    return state_->results();
}

}  // namespace terrane::common
