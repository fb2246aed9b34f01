#include "terrane/http/transfer_limits.hpp"

#include <mutex>

namespace terrane::common {

namespace {

struct LimitsSlot {
    std::mutex mutex;
    TransferLimits limits;  // guarded by mutex
};

LimitsSlot& slot() {
    static LimitsSlot instance;
    return instance;
}

}  // namespace

void setTransferLimits(const TransferLimits& limits) {
    auto& shared = slot();
    std::lock_guard lock(shared.mutex);
    shared.limits = limits;
}

TransferLimits getTransferLimits() {
    auto& shared = slot();
    std::lock_guard lock(shared.mutex);
    return shared.limits;
}

}  // namespace terrane::common
