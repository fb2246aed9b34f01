#include "client/pack_scheduler.hpp"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "terrane/client/retry_policy.hpp"

namespace terrane::common {

namespace {

bool samePack(const OfflineDataRegionMetadata& a, OfflineDataDomain domainA,
              const OfflineDataRegionMetadata& b, OfflineDataDomain domainB) {
    return domainA == domainB && a.revision == b.revision && a.id == b.id;
}

OfflineDataError failure(std::string message) {
    return OfflineDataError{OfflineDataErrorCode::Unknown, std::move(message)};
}

std::string describe(const OfflineDataRegionMetadata& region, OfflineDataDomain domain) {
    return toString(domain) + " pack of " + region.id + "/" + std::to_string(region.revision);
}

}  // namespace

PackScheduler::PackScheduler(OfflineService& service, std::shared_ptr<ClientLoop> loop,
                             ObserverList& observers, std::function<double()> random,
                             NetworkStatus network)
    : service_(service),
      loop_(std::move(loop)),
      observers_(observers),
      random_(std::move(random)),
      network_(network) {
}

std::shared_ptr<PackScheduler::Operation> PackScheduler::makeOperation(
    std::shared_ptr<PackOperationState> state, PackDownloadOptions options) {
    auto operation = std::make_shared<Operation>();
    operation->id = nextId_++;
    operation->state = state;
    operation->options = std::move(options);
    return operation;
}

std::uint64_t PackScheduler::addTask(const std::shared_ptr<Operation>& operation, std::size_t index,
                                     bool removal, const OfflineDataRegionMetadata& region,
                                     OfflineDataDomain domain) {
    const std::uint64_t id = nextId_++;
    Task task;
    task.operation = operation;
    task.index = index;
    task.removal = removal;
    task.region = region;
    task.domain = domain;
    const auto& pack = domain == OfflineDataDomain::Maps ? region.mapPack : region.navigationPack;
    task.total = pack ? pack->bytes : 0;
    tasks_.emplace(id, std::move(task));
    return id;
}

void PackScheduler::download(std::shared_ptr<PackOperationState> state,
                             const OfflineDataRegionMetadata& region,
                             const std::vector<OfflineDataDomain>& domains,
                             PackDownloadOptions options) {
    auto operation = makeOperation(state, std::move(options));
    std::vector<std::uint64_t> started;
    for (std::size_t index = 0; index < domains.size(); ++index) {
        const auto domain = domains[index];
        const auto& pack =
            domain == OfflineDataDomain::Maps ? region.mapPack : region.navigationPack;
        if (!pack) {
            state->settle(index, unexpected(OfflineDataError{
                                     OfflineDataErrorCode::NotFound,
                                     "Region " + region.id + "/" + std::to_string(region.revision) +
                                         " offers no " + toString(domain) + " pack"}));
            continue;
        }
        started.push_back(addTask(operation, index, false, region, domain));
    }
    for (const auto id : started) {
        auto& task = tasks_.at(id);
        if (allowed(task)) {
            request(id, true);
        } else {
            task.phase = Phase::Paused;
            report(task);
        }
    }
    if (!started.empty()) {
        // Registered last: a token stopped already calls at once, and finds every task.
        operation->onStop.emplace(operation->options.stop,
                                  [this, loop = std::weak_ptr(loop_), id = operation->id] {
                                      if (const auto live = loop.lock()) {
                                          live->post([this, id] { cancel(id); });
                                      }
                                  });
    }
}

void PackScheduler::remove(std::shared_ptr<PackOperationState> state,
                           const OfflineDataRegionMetadata& region,
                           const std::vector<OfflineDataDomain>& domains) {
    auto operation = makeOperation(std::move(state), {});
    for (std::size_t index = 0; index < domains.size(); ++index) {
        const auto id = addTask(operation, index, true, region, domains[index]);
        service_.deletePack(domains[index], region);
        tasks_.at(id).snapshot = takeSnapshot();
    }
}

void PackScheduler::request(std::uint64_t id, bool retry, bool fromScratch) {
    auto& task = tasks_.at(id);
    if (retry || task.attempt == 0) {
        ++task.attempt;
    }
    task.phase = Phase::Requested;
    task.retryDue = false;
    task.nextRetry.reset();
    task.state = OfflineDataPackStatus::Pending;
    if (fromScratch) {
        task.bytes = 0;
        task.mostBytes = 0;
    }
    task.resumedFrom = task.bytes;
    service_.downloadPack(task.domain, task.region);
    task.snapshot = takeSnapshot();
    report(task);
}

std::uint64_t PackScheduler::takeSnapshot() {
    const std::uint64_t snapshot = nextId_++;
    snapshots_[snapshot] = SnapshotObserver::start(
        [this, loop = std::weak_ptr(loop_), snapshot](std::vector<PackState> packs) {
            if (const auto live = loop.lock()) {
                live->post([this, snapshot, packs = std::move(packs)] {
                    snapshotArrived(snapshot, packs);
                });
            }
        });
    return snapshot;
}

void PackScheduler::snapshotArrived(std::uint64_t snapshot, const std::vector<PackState>& packs) {
    snapshots_.erase(snapshot);
    std::vector<std::uint64_t> waiting;
    for (const auto& [id, task] : tasks_) {
        if (task.phase == Phase::Requested && task.snapshot == snapshot) {
            waiting.push_back(id);
        }
    }
    for (const auto id : waiting) {
        const auto& task = tasks_.at(id);
        const auto found = std::find_if(packs.begin(), packs.end(), [&](const PackState& state) {
            return samePack(state.region, state.domain, task.region, task.domain);
        });
        if (task.removal) {
            if (found != packs.end()) {
                followRemoval(id, found->pack);
            } else if (task.deletionHeard == OfflineDataPackStatus::Deleting) {
                tasks_.at(id).phase = Phase::Running;
            } else {
                finish(id, OfflineDataPack{});
            }
            continue;
        }
        if (found == packs.end()) {
            // The service turned the request down; its log messages say why.
            finish(id, unexpected(failure("The offline service did not take the download of the " +
                                          describe(task.region, task.domain))));
            continue;
        }
        tasks_.at(id).phase = Phase::Running;
        follow(id, found->pack);
    }
}

void PackScheduler::packChanged(const PackState& state) {
    observers_.notify([&](OfflineClientObserver& observer) { observer.onPackState(state); });
    for (const auto id : tasksOf(state.region, state.domain)) {
        auto& task = tasks_.at(id);
        const auto status = state.pack.status;
        if (task.removal) {
            if (task.phase == Phase::Requested) {
                if (status == OfflineDataPackStatus::Deleting ||
                    status == OfflineDataPackStatus::Deleted) {
                    task.deletionHeard = status;
                }
            } else {
                followRemoval(id, state.pack);
            }
            continue;
        }
        const bool underWay = status == OfflineDataPackStatus::Pending ||
                              status == OfflineDataPackStatus::Downloading ||
                              status == OfflineDataPackStatus::Verifying;
        switch (task.phase) {
            case Phase::Requested:
                break;
            case Phase::Running:
                follow(id, state.pack);
                break;
            case Phase::Backoff:
                // Someone else asked for the pack meanwhile: follow their download.
                if (underWay || status == OfflineDataPackStatus::Available) {
                    ++task.timer;
                    task.nextRetry.reset();
                    task.phase = Phase::Running;
                    follow(id, state.pack);
                }
                break;
            case Phase::Paused:
                if (status == OfflineDataPackStatus::Available) {
                    follow(id, state.pack);
                }
                break;
        }
    }
}

void PackScheduler::logMessage(const std::string& message) {
    observers_.notify([&](OfflineClientObserver& observer) { observer.onLogMessage(message); });
}

void PackScheduler::follow(std::uint64_t id, const OfflineDataPack& pack) {
    auto& task = tasks_.at(id);
    switch (pack.status) {
        case OfflineDataPackStatus::Pending:
            task.state = pack.status;
            task.bytes = task.resumedFrom;
            return report(task);
        case OfflineDataPackStatus::Downloading:
        case OfflineDataPackStatus::Verifying:
            task.state = pack.status;
            task.bytes = pack.bytes;
            if (pack.bytes > task.mostBytes) {
                // Progress: the next failure starts the schedule from its first delay.
                task.mostBytes = pack.bytes;
                task.failuresInRow = 0;
            }
            return report(task);
        case OfflineDataPackStatus::Available: {
            task.state = pack.status;
            task.bytes = task.total;
            task.lastError.reset();
            report(task);
            return finish(id, pack);
        }
        case OfflineDataPackStatus::Incomplete:
            task.bytes = pack.bytes;
            return failed(id, std::nullopt);
        case OfflineDataPackStatus::Errored:
            task.bytes = pack.bytes;
            return failed(id, pack.error.value_or(failure("The pack failed without a reason")));
        case OfflineDataPackStatus::Expired:
            if (pack.error) {
                return failed(id, pack.error);
            }
            return finish(
                id, unexpected(failure("The lease of the " + describe(task.region, task.domain) +
                                       " ran out as it arrived")));
        case OfflineDataPackStatus::Deleting:
        case OfflineDataPackStatus::Deleted:
            return finish(id, unexpected(failure("The " + describe(task.region, task.domain) +
                                                 " was deleted while it downloaded")));
    }
}

void PackScheduler::followRemoval(std::uint64_t id, const OfflineDataPack& pack) {
    auto& task = tasks_.at(id);
    task.phase = Phase::Running;
    switch (pack.status) {
        case OfflineDataPackStatus::Deleting:
            return;
        case OfflineDataPackStatus::Deleted:
            return finish(id, pack);
        case OfflineDataPackStatus::Errored:
            return finish(id, unexpected(pack.error.value_or(failure("The deletion failed"))));
        default:
            return finish(id, unexpected(failure("The " + describe(task.region, task.domain) +
                                                 " was asked for again while it was deleted")));
    }
}

void PackScheduler::failed(std::uint64_t id, const std::optional<OfflineDataError>& error) {
    auto& task = tasks_.at(id);
    task.state = error ? OfflineDataPackStatus::Errored : OfflineDataPackStatus::Incomplete;
    task.lastError = error;
    if (error && error->code == OfflineDataErrorCode::Corrupt) {
        if (task.corruptRetried) {
            return finish(id, unexpected(*error));
        }
        // A corrupt file would only be resumed into the same corrupt file: start over.
        task.corruptRetried = true;
        service_.deletePack(task.domain, task.region);
        return request(id, true, true);
    }
    if (error && !isRetryable(error->code)) {
        return finish(id, unexpected(*error));
    }
    const auto state = task.operation->state.lock();
    if (!state) {
        // Nobody waits for the pack any more.
        tasks_.erase(id);
        return;
    }
    const RetryPolicy& policy = task.operation->options.retry;
    if (policy.maxAttempts && task.attempt >= *policy.maxAttempts) {
        return finish(id, unexpected(error.value_or(failure("The download of the " +
                                                            describe(task.region, task.domain) +
                                                            " stopped before it finished"))));
    }
    ++task.failuresInRow;
    const auto due =
        loop_->clock().now() + retryDelay(policy, task.failuresInRow, random_ ? random_() : 0.0);
    task.phase = Phase::Backoff;
    task.nextRetry = due;
    const std::uint64_t timer = ++task.timer;
    loop_->postAt(due, [this, id, timer] { retryTimer(id, timer); });
    report(task);
}

void PackScheduler::retryTimer(std::uint64_t id, std::uint64_t timer) {
    const auto found = tasks_.find(id);
    if (found == tasks_.end() || found->second.timer != timer ||
        found->second.phase != Phase::Backoff) {
        return;
    }
    auto& task = found->second;
    if (task.operation->state.expired()) {
        // Nobody waits for the pack any more.
        tasks_.erase(found);
        return;
    }
    if (!allowed(task)) {
        task.phase = Phase::Paused;
        task.retryDue = true;
        task.nextRetry.reset();
        return report(task);
    }
    request(id, true);
}

void PackScheduler::cancel(std::uint64_t operation) {
    std::vector<std::uint64_t> ids;
    for (const auto& [id, task] : tasks_) {
        if (task.operation->id == operation) {
            ids.push_back(id);
        }
    }
    for (const auto id : ids) {
        const auto& task = tasks_.at(id);
        if ((task.phase == Phase::Requested || task.phase == Phase::Running) && !othersNeed(id)) {
            service_.cancelPackDownload(task.domain, task.region);
        }
        finish(id, unexpected(failure(std::string(cancelledMessage))), true);
    }
}

void PackScheduler::networkChanged(NetworkStatus network) {
    network_ = network;
    std::vector<std::uint64_t> held;
    std::vector<std::uint64_t> resumed;
    for (auto& [id, task] : tasks_) {
        if (task.removal) {
            continue;
        }
        const bool may = allowed(task);
        if (!may && (task.phase == Phase::Requested || task.phase == Phase::Running)) {
            held.push_back(id);
        } else if (may && task.phase == Phase::Paused) {
            resumed.push_back(id);
        }
    }
    for (const auto id : held) {
        auto& task = tasks_.at(id);
        task.phase = Phase::Paused;
        if (!othersNeed(id)) {
            // Keeps the partial file, so the download resumes where it stopped.
            service_.cancelPackDownload(task.domain, task.region);
        }
        report(task);
    }
    for (const auto id : resumed) {
        request(id, tasks_.at(id).retryDue);
    }
}

void PackScheduler::finish(std::uint64_t id, expected<OfflineDataPack, OfflineDataError> outcome,
                           bool cancelled) {
    const auto found = tasks_.find(id);
    if (found == tasks_.end()) {
        return;
    }
    if (const auto state = found->second.operation->state.lock()) {
        state->settle(found->second.index, std::move(outcome), cancelled);
    }
    tasks_.erase(found);
}

void PackScheduler::report(const Task& task) {
    const auto& progress = task.operation->options.progress;
    if (!progress) {
        return;
    }
    PackProgress record;
    record.regionId = task.region.id;
    record.revision = task.region.revision;
    record.domain = task.domain;
    record.state = task.state;
    record.bytesDone = task.bytes;
    record.bytesTotal = task.total;
    record.resumedFrom = task.resumedFrom;
    record.attempt = task.attempt;
    record.nextRetry = task.nextRetry;
    record.lastError = task.lastError;
    record.waitingForNetwork = task.phase == Phase::Paused;
    try {
        progress(record);
    } catch (const std::exception& error) {
        logMessage(std::string("Uncaught exception in progress callback: ") + error.what());
    } catch (...) {
        logMessage("Uncaught exception in progress callback");
    }
}

bool PackScheduler::allowed(const Task& task) const {
    return allowsDownloads(task.operation->options.network, network_);
}

bool PackScheduler::othersNeed(std::uint64_t id) const {
    const auto& task = tasks_.at(id);
    return std::any_of(tasks_.begin(), tasks_.end(), [&](const auto& entry) {
        const auto& other = entry.second;
        return entry.first != id && !other.removal &&
               (other.phase == Phase::Requested || other.phase == Phase::Running) &&
               allowed(other) && samePack(other.region, other.domain, task.region, task.domain);
    });
}

std::vector<std::uint64_t> PackScheduler::tasksOf(const OfflineDataRegionMetadata& region,
                                                  OfflineDataDomain domain) const {
    std::vector<std::uint64_t> ids;
    for (const auto& [id, task] : tasks_) {
        if (samePack(task.region, task.domain, region, domain)) {
            ids.push_back(id);
        }
    }
    return ids;
}

void PackScheduler::shutdown() {
    for (auto& [id, task] : tasks_) {
        if (const auto state = task.operation->state.lock()) {
            state->settle(task.index, unexpected(failure("The offline client was closed")));
        }
    }
    tasks_.clear();
    for (auto& [number, snapshot] : snapshots_) {
        snapshot->abandon();
    }
    snapshots_.clear();
}

}  // namespace terrane::common
