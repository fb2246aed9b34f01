#include "client/offline_client_impl.hpp"

#include <random>
#include <utility>

namespace terrane::common {

namespace {

std::function<double()> ownRandom() {
    return [generator = std::mt19937_64{std::random_device{}()},
            distribution = std::uniform_real_distribution<double>(0.0, 1.0)]() mutable {
        return distribution(generator);
    };
}

}  // namespace

OfflineClientImpl::OfflineClientImpl(const std::string& path, const OfflineServiceOptions& options,
                                     OfflineClientSettings settings)
    : service(OfflineService::getInstance(path, options)),
      loop(std::make_shared<ClientLoop>(settings.clock ? std::move(settings.clock)
                                                       : steadyClientClock())),
      scheduler_(std::make_unique<PackScheduler>(
          *service, loop, observers, settings.random ? std::move(settings.random) : ownRandom(),
          NetworkStatus::ReachableViaWiFi)) {
    PackScheduler* scheduler = scheduler_.get();
    if (settings.reachability) {
        // Listeners cannot be removed: this one goes quiet with the loop.
        settings.reachability->addListener(
            [weak = std::weak_ptr(loop), scheduler](NetworkStatus status) {
                if (const auto live = weak.lock()) {
                    live->post([scheduler, status] { scheduler->networkChanged(status); });
                }
            });
        const NetworkStatus status = settings.reachability->currentNetworkStatus();
        loop->post([scheduler, status] { scheduler->networkChanged(status); });
    }
    forwarding_ = std::make_shared<ForwardingObserver>(
        loop, [scheduler](const PackState& state) { scheduler->packChanged(state); },
        [scheduler](const std::string& message) { scheduler->logMessage(message); });
    OfflineService::registerObserver(forwarding_);
    thread_ = std::thread([this] { loop->run(); });
}

OfflineClientImpl::~OfflineClientImpl() {
    OfflineService::unregisterObserver(forwarding_);
    post([](PackScheduler& scheduler) { scheduler.shutdown(); });
    loop->close();
    thread_.join();
}

void OfflineClientImpl::post(std::function<void(PackScheduler&)> job) {
    loop->post([scheduler = scheduler_.get(), job = std::move(job)] { job(*scheduler); });
}

}  // namespace terrane::common
