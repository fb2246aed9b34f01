#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "offline/offline_data_pack_headers.hpp"
#include "terrane/expected.hpp"
#include "terrane/offline/offline_data.hpp"
#include "terrane/offline/offline_service_observer.hpp"
#include "terrane/util/rfc3339.hpp"

namespace terrane::common {

// The observers whose acknowledgement of a deletion is still awaited. Held by weak reference and
// compared by ownership, so an observer that went away can never be mistaken for a new one that
// happens to live at the same address.
using DeletionAcknowledgements = std::set<std::weak_ptr<OfflineServiceObserver>, std::owner_less<>>;

// The worker's mutable state of one pack. The part that observers are told (status, error, path,
// bytes) changes only through the setters, and every setter adds one to generation(): answers
// that come back from other threads carry the generation they were issued under, and one that no
// longer matches belongs to an earlier state and is dropped.
//
// Owned by its OfflineDataRegionInternal; used only on the offline worker thread, unlocked.
class OfflineDataPackHolder {
  public:
    OfflineDataPackStatus status() const noexcept { return status_; }
    const optional<OfflineDataError>& error() const noexcept { return error_; }
    const std::string& path() const noexcept { return path_; }
    std::uint64_t bytes() const noexcept { return bytes_; }
    std::uint32_t generation() const noexcept { return generation_; }

    // What observers are told about the pack.
    OfflineDataPack pack() const { return {status_, error_, path_, bytes_}; }

    // Pending through Errored: the pack has files that observers should know of. Deleting and
    // Deleted are not visible. A status outside the enumeration aborts.
    bool visible() const;

    // The lease in `headers` has run out (a pack without expiry never does).
    bool isExpired() const;
    bool isExpired(util::TimePoint now) const noexcept;

    // An Available pack with an entity tag whose lease is in its second half at `now`: its
    // expiry is earlier than now plus half its max-age (whole seconds, remainder dropped; no
    // max-age counts as 0). Such a pack is worth a conditional request to extend the lease.
    bool needsLeaseRenewal(util::TimePoint now) const noexcept;

    // The setters. Each sets the status named, changes the fields said, and adds one to
    // generation() (wrapping).
    // Pending; error cleared, path and bytes replaced, acknowledgements emptied.
    void setPending(std::string path, std::uint64_t bytes);
    // Downloading; error cleared, bytes replaced, acknowledgements emptied.
    void setDownloading(std::uint64_t bytes);
    // Incomplete; error cleared; path and bytes kept.
    void setIncomplete();
    // Verifying; error cleared.
    void setVerifying();
    // Available; error cleared, path replaced, acknowledgements emptied.
    void setAvailable(std::string path);
    // Available; error cleared, acknowledgements emptied.
    void setAvailable();
    // Expired; error replaced by `error` (cleared when it is empty).
    void setExpired(optional<OfflineDataError> error);
    // Expired; error cleared, path replaced.
    void setExpired(std::string path);
    // Errored; error replaced.
    void setError(OfflineDataError error);
    // Deleting; error cleared. The acknowledgements are kept: the deletion fills them next.
    void setDeleting();
    // Deleted; error cleared, path emptied, bytes 0.
    void setDeleted();

    // The state found on disk at start-up: status, path and bytes as the header record says;
    // error cleared, acknowledgements emptied. Counts as a setter.
    void restore(OfflineDataPackStatus status, std::string path, std::uint64_t bytes);

    // A download's progress report: Downloading with the bytes received so far. The one change
    // of state that keeps generation(), so that the download's callback, issued once, stays
    // valid for the whole transfer.
    void updateProgress(std::uint64_t bytes) noexcept;

    // The size of the file under verification, once it has been measured: observers are told it
    // with the outcome. Keeps status and generation; the verification changes state after it.
    void setVerifiedBytes(std::uint64_t bytes) noexcept { bytes_ = bytes; }

    // Bookkeeping that the pack operations change directly; observers never see it.
    DeletionAcknowledgements deletionAcknowledgements;
    // The HTTP download or request in flight for this pack; 0 when there is none.
    std::uint64_t downloadId = 0;
    // The lease and progress, as stored in the pack's header record.
    OfflineDataPackHeaders headers;

  private:
    void advance(OfflineDataPackStatus status) noexcept;

    OfflineDataPackStatus status_ = OfflineDataPackStatus::Deleted;
    optional<OfflineDataError> error_;
    std::string path_;
    std::uint64_t bytes_ = 0;
    std::uint32_t generation_ = 0;
};

}  // namespace terrane::common
