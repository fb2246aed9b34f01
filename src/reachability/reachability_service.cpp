#include "reachability/reachability_service.hpp"

#include <exception>
#include <string>
#include <utility>

#include "terrane/log/log.hpp"

namespace terrane::common {

ReachabilityInterface::~ReachabilityInterface() = default;

ReachabilityService::ReachabilityService(std::unique_ptr<ReachabilityHandle> handle,
                                         ReachabilityNotificationCenter& center)
    : handle_(std::move(handle)), center_(center) {
}

ReachabilityService::~ReachabilityService() {
    stop();
}

void ReachabilityService::addListener(std::function<void(NetworkStatus)>&& listener) {
    listeners_.push_back(std::move(listener));
}

bool ReachabilityService::isReachable() {
    return currentNetworkStatus() != NetworkStatus::NotReachable;
}

NetworkStatus ReachabilityService::currentNetworkStatus() {
    const optional<ReachabilityFlags> flags = handle_ ? handle_->flags() : nullopt;
    return flags ? networkStatusForFlags(*flags) : NetworkStatus::NotReachable;
}

void ReachabilityService::start() {
    // Observe first, so that a change between the handle's start and the calls below is not lost.
    if (handle_) {
        center_.addObserver(this);
        if (!handle_->startNotifier()) {
            center_.removeObserver(this);
        }
    }
    for (const auto& listener : listeners_) {
        listener(currentNetworkStatus());
    }
}

void ReachabilityService::stop() {
    center_.removeObserver(this);
    if (handle_) {
        handle_->stopNotifier();
    }
}

void ReachabilityService::reachabilityChanged() {
    const NetworkStatus status = currentNetworkStatus();
    for (const auto& listener : listeners_) {
        try {
            listener(status);
        } catch (const std::exception& error) {
            Log::error(std::string("A reachability listener failed: ") + error.what(),
                       std::string("reachability"));
        }
    }
}

}  // namespace terrane::common
