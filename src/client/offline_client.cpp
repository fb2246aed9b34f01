#include "terrane/client/offline_client.hpp"

#include <condition_variable>
#include <mutex>
#include <utility>

#include "client/offline_client_impl.hpp"
#include "client/pack_operation_state.hpp"
#include "client/snapshot_observer.hpp"
#include "terrane/client/region_selection.hpp"

namespace terrane::common {

namespace {

using Catalogue = expected<std::vector<OfflineDataRegionMetadata>, OfflineDataError>;

// One answer handed from the service's worker to a waiting caller.
template <typename T>
struct Answer {
    std::mutex mutex;
    std::condition_variable_any arrived;
    optional<T> value;

    void give(T given) {
        {
            std::lock_guard lock(mutex);
            value = std::move(given);
        }
        arrived.notify_all();
    }
};

std::vector<OfflineDataDomain> domainsOrOffered(std::vector<OfflineDataDomain> domains,
                                                const OfflineDataRegionMetadata& region) {
    if (!domains.empty()) {
        return domains;
    }
    if (region.mapPack) {
        domains.push_back(OfflineDataDomain::Maps);
    }
    if (region.navigationPack) {
        domains.push_back(OfflineDataDomain::Navigation);
    }
    return domains;
}

}  // namespace

OfflineClient::OfflineClient(const std::string& path, const OfflineServiceOptions& options,
                             OfflineClientSettings settings)
    : impl_(std::make_unique<OfflineClientImpl>(path, options, std::move(settings))) {
}

OfflineClient::~OfflineClient() = default;

Catalogue OfflineClient::listRegions(std::chrono::milliseconds timeout,
                                     std::stop_token stop) const {
    auto answer = std::make_shared<Answer<Catalogue>>();
    impl_->service->listAvailableRegions(
        [answer](Catalogue catalogue) { answer->give(std::move(catalogue)); });
    std::unique_lock lock(answer->mutex);
    answer->arrived.wait_for(lock, stop, timeout, [&] { return answer->value.has_value(); });
    if (answer->value) {
        return std::move(*answer->value);
    }
    if (stop.stop_requested()) {
        return unexpected(
            OfflineDataError{OfflineDataErrorCode::Unknown, std::string(cancelledMessage)});
    }
    return unexpected(OfflineDataError{
        OfflineDataErrorCode::Connection,
        "The catalogue did not answer within " + std::to_string(timeout.count()) + " ms"});
}

expected<OfflineDataRegionMetadata, OfflineDataError> OfflineClient::findRegion(
    std::string_view id, optional<std::uint32_t> revision, std::chrono::milliseconds timeout,
    std::stop_token stop) const {
    auto catalogue = listRegions(timeout, std::move(stop));
    if (!catalogue) {
        return unexpected(catalogue.error());
    }
    return common::findRegion(*catalogue, id, revision);
}

PackOperation OfflineClient::download(const OfflineDataRegionMetadata& region,
                                      std::vector<OfflineDataDomain> domains,
                                      PackDownloadOptions options) {
    domains = domainsOrOffered(std::move(domains), region);
    auto state = std::make_shared<PackOperationState>(domains);
    impl_->post(
        [state, region, domains, options = std::move(options)](PackScheduler& scheduler) mutable {
            scheduler.download(state, region, domains, std::move(options));
        });
    return PackOperation(std::move(state));
}

PackOperation OfflineClient::remove(const OfflineDataRegionMetadata& region,
                                    std::vector<OfflineDataDomain> domains) {
    domains = domainsOrOffered(std::move(domains), region);
    auto state = std::make_shared<PackOperationState>(domains);
    impl_->post([state, region, domains](PackScheduler& scheduler) {
        scheduler.remove(state, region, domains);
    });
    return PackOperation(std::move(state));
}

std::vector<PackState> OfflineClient::stored() const {
    auto answer = std::make_shared<Answer<std::vector<PackState>>>();
    SnapshotObserver::start(
        [answer](std::vector<PackState> packs) { answer->give(std::move(packs)); });
    std::unique_lock lock(answer->mutex);
    answer->arrived.wait(lock, [&] { return answer->value.has_value(); });
    return std::move(*answer->value);
}

void OfflineClient::addObserver(std::shared_ptr<OfflineClientObserver> observer) {
    impl_->observers.add(std::move(observer));
}

void OfflineClient::removeObserver(const std::shared_ptr<OfflineClientObserver>& observer) {
    impl_->observers.remove(observer);
}

}  // namespace terrane::common
