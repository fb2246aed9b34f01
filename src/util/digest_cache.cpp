#include "util/digest_cache.hpp"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>
#include <utility>

namespace terrane::common::util {

namespace {

std::int64_t nanoseconds(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

// The clock the kernel stamps files with, unless a stamp was asked for since the last change
// (then the next change gets a finer one, which is later still).
std::int64_t coarseNow() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return nanoseconds(now);
}

// A change time further ahead of the clock than this means the clock was set back: waiting for it
// is not worth it.
constexpr std::int64_t kMaxClockWaitNanoseconds = 100'000'000;

}  // namespace

FileIdentity FileIdentity::of(const struct stat& status) {
    return FileIdentity{
        .device = static_cast<std::uint64_t>(status.st_dev),
        .inode = static_cast<std::uint64_t>(status.st_ino),
        .size = static_cast<std::int64_t>(status.st_size),
        .modifiedNanoseconds = nanoseconds(status.st_mtim),
        .changedNanoseconds = nanoseconds(status.st_ctim),
    };
}

DigestCache& DigestCache::instance() {
    static DigestCache cache;
    return cache;
}

bool DigestCache::record(int fd, std::string digest) {
    struct stat status {};
    for (;;) {
        if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
            return false;
        }
        // Once the clock is past the change time, any later change gets a later one.
        const std::int64_t ahead = nanoseconds(status.st_ctim) - coarseNow();
        if (ahead < 0) {
            break;
        }
        if (ahead > kMaxClockWaitNanoseconds) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::nanoseconds(ahead + 1'000'000));
    }
    const FileIdentity identity = FileIdentity::of(status);
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [&](const Entry& entry) {
        return entry.identity.device == identity.device && entry.identity.inode == identity.inode;
    });
    if (entries_.size() == kCapacity) {
        entries_.pop_front();
    }
    entries_.push_back(Entry{identity, std::move(digest)});
    return true;
}

optional<std::string> DigestCache::find(const FileIdentity& identity) const {
    std::lock_guard lock(mutex_);
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [&](const Entry& entry) { return entry.identity == identity; });
    if (found == entries_.end()) {
        return nullopt;
    }
    return found->digest;
}

int DigestCache::rename(const std::string& from, const std::string& to) {
    struct stat before {};
    const bool known = ::stat(from.c_str(), &before) == 0 && find(FileIdentity::of(before));
    if (::rename(from.c_str(), to.c_str()) != 0) {
        return errno;
    }
    struct stat after {};
    if (!known || ::stat(to.c_str(), &after) != 0) {
        return 0;
    }
    const FileIdentity was = FileIdentity::of(before);
    const FileIdentity now = FileIdentity::of(after);
    if (now.device != was.device || now.inode != was.inode || now.size != was.size ||
        now.modifiedNanoseconds != was.modifiedNanoseconds) {
        return 0;
    }
    std::lock_guard lock(mutex_);
    for (auto& entry : entries_) {
        if (entry.identity == was) {
            entry.identity = now;
        }
    }
    return 0;
}

void DigestCache::clear() {
    std::lock_guard lock(mutex_);
    entries_.clear();
}

}  // namespace terrane::common::util
