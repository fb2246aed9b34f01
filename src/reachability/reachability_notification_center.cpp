#include "reachability/reachability_notification_center.hpp"

#include <algorithm>
#include <exception>
#include <memory>
#include <string>

#include "terrane/log/log.hpp"

namespace terrane::common {

ReachabilityNotificationCenter& ReachabilityNotificationCenter::processWide() {
    // Never destroyed: services held by other statics may remove themselves at exit.
    static auto* center = std::make_unique<ReachabilityNotificationCenter>().release();
    return *center;
}

void ReachabilityNotificationCenter::addObserver(ReachabilityObserver* observer) {
    const std::lock_guard lock(mutex_);
    if (!isRegistered(observer)) {
        observers_.push_back(observer);
    }
}

void ReachabilityNotificationCenter::removeObserver(ReachabilityObserver* observer) {
    std::unique_lock lock(mutex_);
    std::erase(observers_, observer);
    const auto self = std::this_thread::get_id();
    callFinished_.wait(lock, [&] {
        return std::ranges::none_of(callsUnderWay_, [&](const auto& call) {
            return call.first == observer && call.second != self;
        });
    });
}

void ReachabilityNotificationCenter::post() {
    std::vector<ReachabilityObserver*> snapshot;
    {
        const std::lock_guard lock(mutex_);
        snapshot = observers_;
    }
    const auto self = std::this_thread::get_id();
    for (ReachabilityObserver* observer : snapshot) {
        {
            const std::lock_guard lock(mutex_);
            if (!isRegistered(observer)) {
                continue;
            }
            callsUnderWay_.emplace_back(observer, self);
        }
        try {
            observer->reachabilityChanged();
        } catch (const std::exception& error) {
            Log::error(std::string("A reachability listener failed: ") + error.what(),
                       std::string("reachability"));
        }
        const std::lock_guard lock(mutex_);
        callsUnderWay_.erase(std::ranges::find(callsUnderWay_, std::pair{observer, self}));
        callFinished_.notify_all();
    }
}

bool ReachabilityNotificationCenter::isRegistered(const ReachabilityObserver* observer) const {
    return std::ranges::find(observers_, observer) != observers_.end();
}

}  // namespace terrane::common
