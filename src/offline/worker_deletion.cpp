// Cancellation and deletion of packs, the acknowledgements that a deletion waits for, and the
// undoing of a deletion that is still waiting.

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <utility>

#include "offline/offline_service_worker.hpp"
#include "offline/pack_paths.hpp"

namespace terrane::common {

namespace fs = std::filesystem;

void OfflineServiceWorker::cancelPackDownload(OfflineDataDomain domain,
                                              OfflineDataRegionMetadata&& region) {
    auto context = beginPackOperation(domain, std::move(region));
    if (!context) {
        return;
    }
    cancelPackDownloadInternal(*context);
}

void OfflineServiceWorker::cancelPackDownloadInternal(Context& context) {
    OfflineDataPackHolder& holder = context.holder;
    switch (holder.status()) {
        case OfflineDataPackStatus::Pending:
        case OfflineDataPackStatus::Downloading: {
            --activeDownloads;
            ++pendingCancellations;
            const auto confirmed = [proxy = proxy](bool) {
                proxy.post(TaskPriority::Normal,
                           &OfflineServiceWorker::finishCancelPackDownloadInternal);
            };
            if (HttpServiceInterface* const http = acquireHttpService()) {
                http->cancelRequest(holder.downloadId, confirmed);
            } else {
                // Only a service that went away could get here; settle the count regardless.
                confirmed(false);
            }
            holder.downloadId = 0;
            // The partial file stays, so that the next download resumes it.
            if (holder.isExpired()) {
                holder.setExpired(nullopt);
            } else {
                holder.setIncomplete();
            }
            return notifyContext(context);
        }
        case OfflineDataPackStatus::Verifying:
            // The queued verification now carries an outdated key and does nothing.
            holder.setIncomplete();
            return notifyContext(context);
        case OfflineDataPackStatus::Incomplete:
        case OfflineDataPackStatus::Available:
        case OfflineDataPackStatus::Expired:
        case OfflineDataPackStatus::Errored:
        case OfflineDataPackStatus::Deleting:
        case OfflineDataPackStatus::Deleted:
            logMessage(
                "Skipped cancellation of %s pack download of revision %u of offline region "
                "'%s': %s",
                toString(context.domain).c_str(), context.region.metadata.revision,
                context.region.metadata.id.c_str(), "Pack is not downloading");
            return;
    }
    std::abort();
}

void OfflineServiceWorker::finishCancelPackDownloadInternal() {
    markBusy();
    --pendingCancellations;
}

void OfflineServiceWorker::deletePack(OfflineDataDomain domain,
                                      OfflineDataRegionMetadata&& region) {
    auto context = beginPackOperation(domain, std::move(region));
    if (!context) {
        return;
    }
    deletePackInternal(*context);
}

void OfflineServiceWorker::deletePackInternal(Context& context) {
    OfflineDataPackHolder& holder = context.holder;
    switch (holder.status()) {
        case OfflineDataPackStatus::Pending:
        case OfflineDataPackStatus::Downloading: {
            --activeDownloads;
            ++pendingDeletions;
            // To observers the pack is gone at once; its files go once the transfer has stopped
            // writing them.
            holder.setDeleted();
            notifyContext(context);
            // The record goes at once: should the confirmation never come (it is lost when the
            // service stops first), the pack must not come back at the next start.
            std::error_code ignored;
            fs::remove(packPaths(root, context).headerFile, ignored);
            const auto cancelled = [proxy = proxy, key = context.key()](bool) {
                proxy.post(TaskPriority::Normal, &OfflineServiceWorker::finishPackDeletion, key);
            };
            if (HttpServiceInterface* const http = acquireHttpService()) {
                http->cancelRequest(holder.downloadId, cancelled);
            } else {
                cancelled(false);
            }
            holder.downloadId = 0;
            return;
        }
        case OfflineDataPackStatus::Incomplete:
        case OfflineDataPackStatus::Verifying:
        case OfflineDataPackStatus::Errored:
            // Nobody can be reading a pack that was never Available.
            return finalizePackDeletion(context);
        case OfflineDataPackStatus::Available:
        case OfflineDataPackStatus::Expired: {
            ++pendingDeletions;
            holder.setDeleting();
            const PackKey key = context.key();
            // With no observer at all the pack stays Deleting until a downloadPack undoes it.
            for (const auto& observer : observers) {
                holder.deletionAcknowledgements.insert(observer);
                std::weak_ptr<OfflineServiceObserver> identity = observer;
                observer->onDeleting(context.domain, context.region.metadata, holder.pack(),
                                     [proxy = proxy, key, identity] {
                                         proxy.post(TaskPriority::Normal,
                                                    &OfflineServiceWorker::confirmPackDeletion, key,
                                                    identity);
                                     });
            }
            return;
        }
        case OfflineDataPackStatus::Deleting:
        case OfflineDataPackStatus::Deleted:
            return;
    }
    std::abort();
}

void OfflineServiceWorker::confirmPackDeletion(PackKey key,
                                               std::weak_ptr<OfflineServiceObserver> observer) {
    auto context = beginAnswer(key);
    if (!context) {
        return;
    }
    // An observer that is gone was unregistered first, which withdrew what it owed.
    if (const auto acknowledging = observer.lock()) {
        removeObserverInternal(*context, acknowledging);
    }
}

void OfflineServiceWorker::completeAcknowledgedDeletion(Context& context) {
    markBusy();
    --pendingDeletions;
    finalizePackDeletion(context);
}

void OfflineServiceWorker::finishPackDeletion(PackKey key) {
    // Deliberately no count is given back for an outdated key: the pack was asked for again
    // before the cancellation came back, and the deletion stays pending.
    auto context = beginAnswer(key);
    if (!context) {
        return;
    }
    --pendingDeletions;
    finalizePackDeletion(*context);
}

void OfflineServiceWorker::finalizePackDeletion(Context& context) {
    const PackPaths paths = packPaths(root, context);
    const std::string domainName = toString(context.domain);
    const std::uint32_t revision = context.region.metadata.revision;
    const std::string& regionId = context.region.metadata.id;

    std::error_code error;
    fs::remove_all(paths.headerFile, error);
    if (error) {
        // The files themselves still go; without them the stray record names a missing pack.
        logMessage(
            "Failed to delete metadata for %s pack of revision %u of offline region '%s': %s",
            domainName.c_str(), revision, regionId.c_str(), error.message().c_str());
    }

    std::error_code failure;
    for (const fs::path* file :
         {&paths.packFile, &paths.downloadFile, &paths.partialFile, &paths.resumeDataFile}) {
        fs::remove_all(*file, error);
        if (error && !failure) {
            failure = error;
        }
    }
    if (failure) {
        return failPack(context, OfflineDataErrorCode::Filesystem,
                        "Failed to delete " + domainName + " pack of revision " +
                            std::to_string(revision) + " of offline region '" + regionId +
                            "': " + failure.message());
    }
    // A pack whose download was cancelled by its deletion was reported Deleted back then.
    if (context.holder.status() != OfflineDataPackStatus::Deleted) {
        context.holder.setDeleted();
        notifyContext(context);
    }
}

void OfflineServiceWorker::undeletePackInternal(Context& context) {
    OfflineDataPackHolder& holder = context.holder;
    --pendingDeletions;
    if (holder.isExpired()) {
        holder.setExpired(nullopt);
        // setExpired keeps the acknowledgement set; emptied here so that an observer that leaves
        // later cannot complete the deletion that was just undone.
        holder.deletionAcknowledgements.clear();
    } else {
        holder.setAvailable();
    }
    notifyContext(context);
}

}  // namespace terrane::common
