#include "terrane/http/request_id.hpp"

#include <atomic>

namespace terrane::common {

namespace {

// Constant-initialised, so ids drawn by static initialisers of other units are counted too.
std::atomic<std::uint64_t> lastRequestId{0};

}  // namespace

std::uint64_t nextHttpRequestId() noexcept {
    // Only uniqueness matters; no other memory is published through the counter.
    return lastRequestId.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace terrane::common
