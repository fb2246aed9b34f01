#pragma once

#include <chrono>
#include <memory>
#include <string_view>
#include <vector>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/offline/offline_data.hpp"

namespace terrane::common {

class PackOperationState;

// The message of the error a pack's result carries when its operation was cancelled.
inline constexpr std::string_view cancelledMessage = "Cancelled";

// The end of one pack of an OfflineClient operation. A plain record.
struct PackResult {
    OfflineDataDomain domain = OfflineDataDomain::Maps;
    // A download: the Available pack with its path and size. A removal: the pack in state
    // Deleted. Otherwise the error that ended it.
    expected<OfflineDataPack, OfflineDataError> outcome;
    // The operation's stop token ended it (the error's code is Unknown, its message
    // cancelledMessage); a partial download file stays for the next attempt.
    bool cancelled = false;
};

// The handle of a download or removal that OfflineClient started: one result per pack, in the
// order the domains were given. Copies share one operation. A download keeps being retried only
// while some handle of it lives; dropping every handle leaves the service's current attempt
// running, but nothing asks again.
//
// Threads: every member may be called from any thread, except that waiting on the client's own
// thread (in a progress callback or an OfflineClientObserver) would wait for ever.
class TERRANE_EXPORT PackOperation {
  public:
    explicit PackOperation(std::shared_ptr<PackOperationState> state);

    // Whether every pack has its result.
    bool done() const;
    // Waits until every pack has its result.
    void wait() const;
    // Waits at most `timeout`; true when every pack has its result.
    bool wait_for(std::chrono::nanoseconds timeout) const;
    // Waits, then gives the results; they live as long as a handle of the operation.
    const std::vector<PackResult>& result() const;

  private:
    std::shared_ptr<PackOperationState> state_;
};

}  // namespace terrane::common
