#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "terrane/offline/offline_service_observer.hpp"

namespace terrane::common::test {

// An OfflineServiceObserver for tests that writes down every callback as one readable line:
//
//   onPending maps region-a/3 path=/x/maps/1.tmp bytes=0
//   onErrored navigation region-a/3 path= bytes=0 error=NotFound, message=gone
//   onDeleted maps region-a/3
//   onIdle
//   onLogMessage Skipping revision 0 of offline region 'r': Invalid revision name
//
// Callbacks arrive on the worker thread; every member may be called from any thread.
class RecordingObserver : public OfflineServiceObserver {
  public:
    using Lines = std::vector<std::string>;
    using Domain = OfflineDataDomain;
    using Region = OfflineDataRegionMetadata;
    using Pack = OfflineDataPack;

    // A copy of every line so far, in arrival order.
    Lines lines() const {
        std::lock_guard lock(mutex);
        return recorded;
    }

    // Waits until `line` has been recorded `times` times; gives up after a deadlock guard
    // rather than hang a broken test.
    bool waitFor(const std::string& line, std::size_t times = 1) const {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] {
            return static_cast<std::size_t>(std::ranges::count(recorded, line)) >= times;
        });
    }

    // From now on, `callback` (a name such as "onAvailable") records its line and then throws
    // std::runtime_error(message); with `standard` false it throws the message as a std::string.
    void throwFrom(const std::string& callback, const std::string& message, bool standard = true) {
        std::lock_guard lock(mutex);
        faults[callback] = {message, standard};
    }

    // The acknowledgement callbacks received with onDeleting, in order; taking them empties the
    // list. The caller calls them when and where the test wants.
    std::vector<std::function<void()>> takeAcknowledgements() {
        std::lock_guard lock(mutex);
        return std::exchange(acknowledgements, {});
    }

    void onPending(Domain d, const Region& r, const Pack& p) override { add(__func__, d, r, p); }
    void onDownloading(Domain d, const Region& r, const Pack& p) override {
        add(__func__, d, r, p);
    }
    void onIncomplete(Domain d, const Region& r, const Pack& p) override { add(__func__, d, r, p); }
    void onVerifying(Domain d, const Region& r, const Pack& p) override { add(__func__, d, r, p); }
    void onAvailable(Domain d, const Region& r, const Pack& p) override { add(__func__, d, r, p); }
    void onExpired(Domain d, const Region& r, const Pack& p) override { add(__func__, d, r, p); }
    void onErrored(Domain d, const Region& r, const Pack& p) override { add(__func__, d, r, p); }
    void onDeleting(Domain d, const Region& r, const Pack& p,
                    std::function<void()> acknowledge) override {
        {
            std::lock_guard lock(mutex);
            acknowledgements.push_back(std::move(acknowledge));
        }
        add(__func__, d, r, p);
    }
    void onDeleted(Domain d, const Region& r) override {
        std::ostringstream line;
        line << ' ' << toString(d) << ' ' << r;
        record(__func__, line.str());
    }
    void onInitialized() override { record(__func__); }
    void onIdle() override { record(__func__); }
    void onLogMessage(const std::string& message) override { record(__func__, " " + message); }

  private:
    void add(const std::string& callback, Domain d, const Region& r, const Pack& p) {
        std::ostringstream line;
        line << ' ' << toString(d) << ' ' << r << " path=" << p.path << " bytes=" << p.bytes;
        if (p.error) {
            line << ' ' << *p.error;
        }
        record(callback, line.str());
    }

    // Appends the line and wakes waiters, then throws as the test asked.
    void record(const std::string& callback, const std::string& details = {}) {
        std::unique_lock lock(mutex);
        recorded.push_back(callback + details);
        changed.notify_all();
        if (auto fault = faults.find(callback); fault != faults.end()) {
            const auto [message, standard] = fault->second;
            lock.unlock();
            if (standard) {
                throw std::runtime_error(message);
            }
            throw message;
        }
    }

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    Lines recorded;
    std::map<std::string, std::pair<std::string, bool>> faults;
    std::vector<std::function<void()>> acknowledgements;
};

}  // namespace terrane::common::test
