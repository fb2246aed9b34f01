#include "terrane/client/retry_policy.hpp"

#include <algorithm>

namespace terrane::common {

std::chrono::milliseconds retryDelay(const RetryPolicy& policy, std::uint32_t failuresInRow,
                                     double random) {
    using std::chrono::milliseconds;
    milliseconds delay = std::max(policy.initialDelay, milliseconds{0});
    for (std::uint32_t failure = 1; failure < failuresInRow && delay < policy.maxDelay; ++failure) {
        delay *= 2;
    }
    delay = std::min(delay, policy.maxDelay);
    const double jitter = std::clamp(policy.jitter, 0.0, 1.0) * std::clamp(random, 0.0, 1.0);
    return milliseconds{
        static_cast<milliseconds::rep>(static_cast<double>(delay.count()) * (1.0 - jitter))};
}

bool isRetryable(OfflineDataErrorCode code) {
    return code == OfflineDataErrorCode::Connection || code == OfflineDataErrorCode::Server ||
           code == OfflineDataErrorCode::RateLimited;
}

}  // namespace terrane::common
