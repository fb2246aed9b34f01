#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "terrane/expected.hpp"

namespace terrane::common::util {

// What tells one state of a file from any other: the inode on its device, and the size and the
// modification and change times to the nanosecond. Every write, truncation, chmod, link, rename or
// utimensat sets the change time to the present, which nobody can set back, so a file that was
// touched in any way after it was recorded no longer matches.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modifiedNanoseconds = 0;
    std::int64_t changedNanoseconds = 0;

    static FileIdentity of(const struct stat& status);
    bool operator==(const FileIdentity&) const = default;
};

// The MD5 digests of files whose bytes this process hashed as it wrote them, so that checking
// such a file afterwards need not read it again. Process-wide, bounded (the oldest entry goes
// first), and safe to use from any thread.
class DigestCache {
  public:
    static constexpr std::size_t kCapacity = 256;

    static DigestCache& instance();

    // Records `digest` (lower-case hexadecimal) as that of the open regular file `fd` as it is
    // now. The caller vouches that nothing else wrote to the file since it hashed the bytes.
    // Returns false, recording nothing, when the file cannot be examined or when a change within
    // the file system's timestamp granularity could not be told apart from the state recorded.
    //
    // May sleep for one tick of the coarse clock (a few milliseconds): a write in the same tick
    // as the last change would leave the change time as it was.
    bool record(int fd, std::string digest);

    // The digest recorded for exactly this state of the file, if any.
    optional<std::string> find(const FileIdentity& identity) const;

    // Renames `from` to `to` as rename(2) does (0 or the errno value), and keeps a digest
    // recorded for the file under its new change time: a rename changes no byte. It is kept only
    // when the file renamed is the one recorded, with the same size and modification time: a
    // write in between would have moved the latter, since the clock was past it when recorded.
    int rename(const std::string& from, const std::string& to);

    // Forgets every entry.
    void clear();

  private:
    struct Entry {
        FileIdentity identity;
        std::string digest;
    };

    mutable std::mutex mutex_;
    // Newest last; a few hundred entries are searched faster than they could be indexed.
    std::deque<Entry> entries_;
};

}  // namespace terrane::common::util
