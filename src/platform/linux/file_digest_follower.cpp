#include "platform/linux/file_digest_follower.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace terrane::common {

namespace {

// Read back in pieces of this size: large enough that a read costs little beside the digest.
constexpr std::uint64_t kChunkBytes = 1024 * 1024;
// An idle thread is woken once this much is waiting, not for every piece the network delivers.
constexpr std::uint64_t kWakeBytes = 1024 * 1024;

}  // namespace

std::unique_ptr<FileDigestFollower> FileDigestFollower::start(int fd, std::uint64_t written) {
    base::io::FileDescriptor own{::fcntl(fd, F_DUPFD_CLOEXEC, 0)};
    if (!own) {
        return nullptr;
    }
    auto md5 = util::MD5::create();
    if (!md5) {
        return nullptr;
    }
    try {
        return std::make_unique<FileDigestFollower>(Key{}, std::move(own), std::move(*md5),
                                                    written);
    } catch (const std::system_error&) {
        return nullptr;  // no thread to spare
    }
}

FileDigestFollower::FileDigestFollower(Key, base::io::FileDescriptor file, util::MD5 md5,
                                       std::uint64_t written)
    : file_(std::move(file)), md5_(std::move(md5)), written_(written) {
    thread_ = std::thread([this] { run(); });
}

FileDigestFollower::~FileDigestFollower() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void FileDigestFollower::advance(std::uint64_t written) {
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        written_ = written;
        wake = idle_ && written_ - hashed_ >= kWakeBytes;
    }
    if (wake) {
        changed_.notify_all();
    }
}

optional<std::string> FileDigestFollower::finish(std::uint64_t written) {
    {
        std::unique_lock lock(mutex_);
        written_ = written;
        finishing_ = true;
        changed_.notify_all();
        changed_.wait(lock, [&] { return failed_ || hashed_ >= written_; });
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
    if (failed_ || hashed_ != written_) {
        return nullopt;
    }
    auto digest = md5_.hexdigest();
    if (!digest) {
        return nullopt;
    }
    return std::move(*digest);
}

void FileDigestFollower::run() {
    const auto buffer = std::make_unique_for_overwrite<unsigned char[]>(kChunkBytes);
    std::unique_lock lock(mutex_);
    for (;;) {
        if (stopping_ || failed_) {
            return;
        }
        if (hashed_ >= written_) {
            if (finishing_) {
                return;
            }
            idle_ = true;
            changed_.wait(lock);
            idle_ = false;
            continue;
        }
        const std::uint64_t offset = hashed_;
        const std::uint64_t size = std::min(written_ - hashed_, kChunkBytes);
        lock.unlock();
        ssize_t count = 0;
        do {
            count = ::pread(file_.get(), buffer.get(), size, static_cast<off_t>(offset));
        } while (count < 0 && errno == EINTR);
        const bool hashed =
            count > 0 && md5_.update(buffer.get(), static_cast<std::size_t>(count)).has_value();
        lock.lock();
        if (!hashed) {
            failed_ = true;
            changed_.notify_all();
            return;
        }
        hashed_ += static_cast<std::uint64_t>(count);
        if (finishing_ && hashed_ >= written_) {
            changed_.notify_all();
        }
    }
}

}  // namespace terrane::common
