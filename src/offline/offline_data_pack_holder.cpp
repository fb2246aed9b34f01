#include "offline/offline_data_pack_holder.hpp"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

namespace terrane::common {

bool OfflineDataPackHolder::visible() const {
    switch (status_) {
        case OfflineDataPackStatus::Pending:
        case OfflineDataPackStatus::Downloading:
        case OfflineDataPackStatus::Incomplete:
        case OfflineDataPackStatus::Verifying:
        case OfflineDataPackStatus::Available:
        case OfflineDataPackStatus::Expired:
        case OfflineDataPackStatus::Errored:
            return true;
        case OfflineDataPackStatus::Deleting:
        case OfflineDataPackStatus::Deleted:
            return false;
    }
    // Only memory corruption gets here; carrying on would report a made-up state.
    std::abort();
}

bool OfflineDataPackHolder::isExpired() const {
    return isExpired(
        std::chrono::time_point_cast<util::TimePoint::duration>(std::chrono::system_clock::now()));
}

bool OfflineDataPackHolder::isExpired(util::TimePoint now) const noexcept {
    return headers.expires < now;
}

bool OfflineDataPackHolder::needsLeaseRenewal(util::TimePoint now) const noexcept {
    if (status_ != OfflineDataPackStatus::Available || headers.etag.empty()) {
        return false;
    }
    // Integer division on purpose: a max-age of 7 gives 3 s, and -1 (none) gives 0.
    const std::int64_t halfSeconds = headers.max_age > 0 ? headers.max_age / 2 : 0;
    // A stored max-age can be as large as the record holds; past the clock's range the
    // threshold is simply "never", and only a pack without expiry stays off the list.
    const util::TimePoint from = std::max(now, util::TimePoint{});
    const auto headroom =
        std::chrono::duration_cast<std::chrono::seconds>(util::TimePoint::max() - from);
    if (halfSeconds >= headroom.count()) {
        return headers.expires < util::TimePoint::max();
    }
    return headers.expires < now + std::chrono::seconds(halfSeconds);
}

void OfflineDataPackHolder::advance(OfflineDataPackStatus status) noexcept {
    status_ = status;
    // Unsigned: wraps rather than overflows.
    ++generation_;
}

void OfflineDataPackHolder::setPending(std::string path, std::uint64_t bytes) {
    advance(OfflineDataPackStatus::Pending);
    error_.reset();
    path_ = std::move(path);
    bytes_ = bytes;
    deletionAcknowledgements.clear();
}

void OfflineDataPackHolder::setDownloading(std::uint64_t bytes) {
    advance(OfflineDataPackStatus::Downloading);
    deletionAcknowledgements.clear();
    error_.reset();
    bytes_ = bytes;
}

void OfflineDataPackHolder::setIncomplete() {
    advance(OfflineDataPackStatus::Incomplete);
    error_.reset();
}

void OfflineDataPackHolder::setVerifying() {
    advance(OfflineDataPackStatus::Verifying);
    error_.reset();
}

void OfflineDataPackHolder::setAvailable(std::string path) {
    advance(OfflineDataPackStatus::Available);
    error_.reset();
    path_ = std::move(path);
    deletionAcknowledgements.clear();
}

void OfflineDataPackHolder::setAvailable() {
    advance(OfflineDataPackStatus::Available);
    error_.reset();
    deletionAcknowledgements.clear();
}

void OfflineDataPackHolder::setExpired(optional<OfflineDataError> error) {
    advance(OfflineDataPackStatus::Expired);
    error_ = std::move(error);
}

void OfflineDataPackHolder::setExpired(std::string path) {
    advance(OfflineDataPackStatus::Expired);
    error_.reset();
    path_ = std::move(path);
}

void OfflineDataPackHolder::setError(OfflineDataError error) {
    advance(OfflineDataPackStatus::Errored);
    error_ = std::move(error);
}

void OfflineDataPackHolder::setDeleting() {
    advance(OfflineDataPackStatus::Deleting);
    error_.reset();
}

void OfflineDataPackHolder::setDeleted() {
    advance(OfflineDataPackStatus::Deleted);
    error_.reset();
    path_.clear();
    bytes_ = 0;
}

void OfflineDataPackHolder::restore(OfflineDataPackStatus status, std::string path,
                                    std::uint64_t bytes) {
    advance(status);
    error_.reset();
    path_ = std::move(path);
    bytes_ = bytes;
    deletionAcknowledgements.clear();
}

void OfflineDataPackHolder::updateProgress(std::uint64_t bytes) noexcept {
    status_ = OfflineDataPackStatus::Downloading;
    bytes_ = bytes;
}

}  // namespace terrane::common
