#pragma once

#include <filesystem>
#include <string_view>

#include "terrane/expected.hpp"
#include "terrane/offline/offline_storage_holder.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::common {

// The hidden file in a storage root whose exclusive flock(2) marks the tree as taken. It holds
// the holder's process id in decimal, for the messages of the processes that find it taken, and
// is emptied when the holder lets go in order: a process id found by the next holder means the
// last one died holding the tree.
inline constexpr std::string_view storageLockFileName = ".lock";

// A service's hold on its storage root: the open lock file with its exclusive lock, released
// when the object goes (or, if the process dies first, by the kernel).
//
// Threads: acquire() and findHolder() from any thread; an object belongs to one thread.
class StorageLock {
  public:
    // Takes the root (creating it if need be). When another process holds it, tries again for
    // a bounded moment (a process that only looks with findHolder() holds it that long), then
    // gives up and names the holder. A root where no lock file can be made (a read-only tree)
    // is not locked at all: the service then fails where it writes, as it would anyway.
    // `patient` false tries once only, for a worker that must not stall.
    static expected<StorageLock, OfflineStorageHolder> acquire(const std::filesystem::path& root,
                                                               bool patient = true);

    // Who holds the root, if another process does. Creates nothing; never waits.
    static optional<OfflineStorageHolder> findHolder(const std::filesystem::path& root);

    StorageLock() = default;
    ~StorageLock();
    StorageLock(StorageLock&&) noexcept = default;
    StorageLock& operator=(StorageLock&& other) noexcept;

    // Whether the previous holder of the tree ended without letting go (killed, crashed), so
    // that what it was writing may lie half-written in the tree.
    bool previousHolderDied() const { return previousHolderDied_; }

  private:
    StorageLock(base::io::FileDescriptor file, bool previousHolderDied)
        : file(std::move(file)), previousHolderDied_(previousHolderDied) {}

    // Empties the file while still holding it, then lets go.
    void release();

    base::io::FileDescriptor file;
    bool previousHolderDied_ = false;
};

}  // namespace terrane::common
