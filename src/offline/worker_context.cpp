// Finding the pack a task acts on, and reporting when there is none.

#include <utility>

#include "offline/offline_service_worker.hpp"

namespace terrane::common {

namespace {

ContextError metadataMissing(const RegionKey& key, OfflineDataDomain domain) {
    return {key.first, key.second, domain, ContextError::Reason::MetadataMissing};
}

}  // namespace

ContextResult OfflineServiceWorker::loadContext(OfflineDataDomain domain,
                                                OfflineDataRegionMetadata&& region) {
    RegionKey key{region.id, region.revision};
    auto found = regions.find(key);
    if (found == regions.end()) {
        found = regions.emplace(std::move(key), OfflineDataRegionInternal(std::move(region))).first;
    }
    return loadContext(domain, found->second);
}

ContextResult OfflineServiceWorker::loadContext(OfflineDataDomain domain,
                                                OfflineDataRegionInternal& region) {
    auto& pack = region.getPackMetadata(domain);
    if (!pack) {
        return unexpected(metadataMissing(region.key(), domain));
    }
    if (pack->format != expectedFormat(domain)) {
        logMessage("metadata specifies wrong format");
        return unexpected(metadataMissing(region.key(), domain));
    }
    return Context{domain, region, *pack, region.getPackHolder(domain)};
}

ContextResult OfflineServiceWorker::loadContext(const PackKey& key) {
    const auto& [regionKey, domain, generation] = key;
    const auto found = regions.find(regionKey);
    if (found == regions.end()) {
        return unexpected(metadataMissing(regionKey, domain));
    }
    auto context = loadContext(domain, found->second);
    if (context && context->holder.generation() != generation) {
        return unexpected(ContextError{regionKey.first, regionKey.second, domain,
                                       ContextError::Reason::Outdated});
    }
    return context;
}

void OfflineServiceWorker::logContextError(const ContextError& error) {
    if (error.reason == ContextError::Reason::Outdated) {
        // An answer to a request that no longer matters; nothing went wrong.
        return;
    }
    logMessage("Failed to retrieve metadata for %s pack of revision %u of offline region '%s'",
               toString(error.domain).c_str(), error.revision, error.regionId.c_str());
}

optional<Context> OfflineServiceWorker::beginPackOperation(OfflineDataDomain domain,
                                                           OfflineDataRegionMetadata&& region) {
    if (!acceptRegionId(region.id)) {
        return nullopt;
    }
    if (storageHolder) {
        retakeStorage();
    }
    auto context = loadContext(domain, std::move(region));
    if (!context) {
        logContextError(context.error());
        return nullopt;
    }
    markBusy();
    if (storageHolder) {
        failPack(*context, OfflineDataErrorCode::Filesystem, storageInUseMessage(*storageHolder));
        return nullopt;
    }
    return *context;
}

optional<Context> OfflineServiceWorker::beginAnswer(const PackKey& key) {
    auto context = loadContext(key);
    if (!context) {
        logContextError(context.error());
        return nullopt;
    }
    markBusy();
    return *context;
}

}  // namespace terrane::common
