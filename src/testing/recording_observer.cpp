#include "testing/recording_observer.hpp"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace terrane::common::test {

namespace {

// Thrown where a test wants an exception that no std::exception handler catches.
struct NonStandardFailure {
    std::string message;
};

std::string describePack(const char* callback, OfflineDataDomain domain,
                         const OfflineDataRegionMetadata& region, const OfflineDataPack& pack) {
    std::ostringstream line;
    line << callback << ' ' << toString(domain) << ' ' << region << " path=" << pack.path
         << " bytes=" << pack.bytes;
    if (pack.error) {
        line << ' ' << *pack.error;
    }
    return line.str();
}

}  // namespace

RecordingObserver::Lines RecordingObserver::lines() const {
    std::lock_guard lock(mutex);
    return recorded;
}

std::size_t RecordingObserver::count(const std::string& line) const {
    std::lock_guard lock(mutex);
    return static_cast<std::size_t>(std::count(recorded.begin(), recorded.end(), line));
}

bool RecordingObserver::waitFor(const std::string& line, std::size_t times) const {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, deadlockGuard, [&] {
        return static_cast<std::size_t>(std::count(recorded.begin(), recorded.end(), line)) >=
               times;
    });
}

void RecordingObserver::throwFrom(const std::string& callback, const std::string& message,
                                  bool standard) {
    std::lock_guard lock(mutex);
    faults[callback] = Fault{message, standard};
}

void RecordingObserver::pauseIn(const std::string& callback) {
    std::lock_guard lock(mutex);
    pauseCallback = callback;
}

void RecordingObserver::resume() {
    {
        std::lock_guard lock(mutex);
        pauseCallback.clear();
    }
    changed.notify_all();
}

std::vector<std::function<void()>> RecordingObserver::takeAcknowledgements() {
    std::lock_guard lock(mutex);
    return std::exchange(acknowledgements, {});
}

void RecordingObserver::record(const std::string& callback, std::string line) {
    std::unique_lock lock(mutex);
    recorded.push_back(std::move(line));
    changed.notify_all();
    if (!pauseCallback.empty() && pauseCallback == callback) {
        changed.wait_for(lock, deadlockGuard, [this] { return pauseCallback.empty(); });
        pauseCallback.clear();
    }
    auto fault = faults.find(callback);
    if (fault == faults.end()) {
        return;
    }
    Fault failure = fault->second;
    lock.unlock();
    if (failure.standard) {
        throw std::runtime_error(failure.message);
    }
    throw NonStandardFailure{failure.message};
}

void RecordingObserver::recordPack(const char* callback, OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region,
                                   const OfflineDataPack& pack) {
    record(callback, describePack(callback, domain, region, pack));
}

void RecordingObserver::onPending(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                  const OfflineDataPack& pack) {
    recordPack("onPending", domain, region, pack);
}

void RecordingObserver::onDownloading(OfflineDataDomain domain,
                                      const OfflineDataRegionMetadata& region,
                                      const OfflineDataPack& pack) {
    recordPack("onDownloading", domain, region, pack);
}

void RecordingObserver::onIncomplete(OfflineDataDomain domain,
                                     const OfflineDataRegionMetadata& region,
                                     const OfflineDataPack& pack) {
    recordPack("onIncomplete", domain, region, pack);
}

void RecordingObserver::onVerifying(OfflineDataDomain domain,
                                    const OfflineDataRegionMetadata& region,
                                    const OfflineDataPack& pack) {
    recordPack("onVerifying", domain, region, pack);
}

void RecordingObserver::onAvailable(OfflineDataDomain domain,
                                    const OfflineDataRegionMetadata& region,
                                    const OfflineDataPack& pack) {
    recordPack("onAvailable", domain, region, pack);
}

void RecordingObserver::onExpired(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                  const OfflineDataPack& pack) {
    recordPack("onExpired", domain, region, pack);
}

void RecordingObserver::onErrored(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                                  const OfflineDataPack& pack) {
    recordPack("onErrored", domain, region, pack);
}

void RecordingObserver::onDeleting(OfflineDataDomain domain,
                                   const OfflineDataRegionMetadata& region,
                                   const OfflineDataPack& pack, std::function<void()> acknowledge) {
    {
        std::lock_guard lock(mutex);
        acknowledgements.push_back(std::move(acknowledge));
    }
    recordPack("onDeleting", domain, region, pack);
}

void RecordingObserver::onDeleted(OfflineDataDomain domain,
                                  const OfflineDataRegionMetadata& region) {
    std::ostringstream line;
    line << "onDeleted " << toString(domain) << ' ' << region;
    record("onDeleted", line.str());
}

void RecordingObserver::onInitialized() {
    record("onInitialized", "onInitialized");
}

void RecordingObserver::onIdle() {
    record("onIdle", "onIdle");
}

void RecordingObserver::onLogMessage(const std::string& message) {
    record("onLogMessage", "onLogMessage " + message);
}

}  // namespace terrane::common::test
