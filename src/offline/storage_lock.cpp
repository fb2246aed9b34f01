#include "offline/storage_lock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <string>
#include <system_error>
#include <thread>

namespace terrane::common {

namespace fs = std::filesystem;

namespace {

// findHolder() takes a shared lock for the moment of its test; a start-up that meets it retries
// for up to attempts x pause before it believes the tree is taken.
constexpr int lockAttempts = 10;
constexpr std::chrono::milliseconds lockPause{10};

fs::path lockFilePath(const fs::path& root) {
    return root / storageLockFileName;
}

// The pid the holder wrote, if the file holds one: decimal digits, optionally followed by a
// newline.
optional<std::int64_t> readPid(int fd) {
    std::array<char, 32> buffer{};
    const ssize_t read = ::pread(fd, buffer.data(), buffer.size(), 0);
    if (read <= 0) {
        return nullopt;
    }
    const char* const end = buffer.data() + read;
    std::int64_t pid = 0;
    const auto [stop, error] = std::from_chars(buffer.data(), end, pid);
    if (error != std::errc() || pid <= 0 || (stop != end && *stop != '\n')) {
        return nullopt;
    }
    return pid;
}

int lockRetryingInterrupts(int fd, int operation) {
    for (;;) {
        if (::flock(fd, operation) == 0) {
            return 0;
        }
        if (errno != EINTR) {
            return errno;
        }
    }
}

}  // namespace

expected<StorageLock, OfflineStorageHolder> StorageLock::acquire(const fs::path& root,
                                                                 bool patient) {
    std::error_code ignored;
    fs::create_directories(root, ignored);
    // Readable by others, so that another user's process can at least tell who holds the tree.
    base::io::FileDescriptor file(
        ::open(lockFilePath(root).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!file) {
        return StorageLock();
    }
    for (int attempt = 0;; ++attempt) {
        const int error = lockRetryingInterrupts(file.get(), LOCK_EX | LOCK_NB);
        if (error == 0) {
            break;
        }
        if (error != EWOULDBLOCK) {
            // A file system without flock support: nothing to coordinate with.
            return StorageLock();
        }
        if (!patient || attempt + 1 == lockAttempts) {
            return unexpected(OfflineStorageHolder{root, readPid(file.get())});
        }
        std::this_thread::sleep_for(lockPause);
    }
    const bool previousHolderDied = readPid(file.get()).has_value();
    const std::string pid = std::to_string(::getpid()) + "\n";
    // Only a label for the messages of others: a failed write leaves them without the pid.
    if (::ftruncate(file.get(), 0) == 0) {
        (void)!::pwrite(file.get(), pid.data(), pid.size(), 0);
    }
    return StorageLock(std::move(file), previousHolderDied);
}

StorageLock::~StorageLock() {
    release();
}

StorageLock& StorageLock::operator=(StorageLock&& other) noexcept {
    if (this != &other) {
        release();
        file = std::move(other.file);
        previousHolderDied_ = other.previousHolderDied_;
    }
    return *this;
}

void StorageLock::release() {
    if (file) {
        (void)!::ftruncate(file.get(), 0);
        file = base::io::FileDescriptor();
    }
}

optional<OfflineStorageHolder> StorageLock::findHolder(const fs::path& root) {
    const base::io::FileDescriptor file(
        ::open(lockFilePath(root).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!file) {
        return nullopt;
    }
    // A shared lock is enough to test: it is refused only while someone holds the exclusive one,
    // and it goes with the descriptor.
    if (lockRetryingInterrupts(file.get(), LOCK_SH | LOCK_NB) != EWOULDBLOCK) {
        return nullopt;
    }
    OfflineStorageHolder holder{root, readPid(file.get())};
    if (holder.pid && *holder.pid == ::getpid()) {
        // The service of this very process.
        return nullopt;
    }
    return holder;
}

std::string storageInUseMessage(const OfflineStorageHolder& holder) {
    std::string message =
        "Offline storage " + holder.path.string() + " is in use by another process";
    if (holder.pid) {
        message += " (pid " + std::to_string(*holder.pid) + ")";
    }
    return message;
}

}  // namespace terrane::common
