#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string_view>
#include <utility>

namespace terrane::base::io {

// Owns a POSIX file descriptor and closes it when it goes. A negative value means "none".
// Movable, not copyable; used on one thread at a time.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    ~FileDescriptor() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // Closes now, for the callers that must know whether the close succeeded: some file
    // systems report a failed write only there. Returns 0 or the error number.
    int close() {
        const int fd = std::exchange(fd_, -1);
        if (fd < 0) {
            return 0;
        }
        // Linux frees the descriptor even when close fails with EINTR, so it is not retried.
        return ::close(fd) == 0 ? 0 : errno;
    }

  private:
    void reset() {
        if (fd_ >= 0) {
            ::close(std::exchange(fd_, -1));
        }
    }

    int fd_ = -1;
};

// Writes all of `contents` to `fd`, resuming after interrupted and short writes. Returns 0 or
// the error number.
inline int writeAll(int fd, std::string_view contents) {
    while (!contents.empty()) {
        const ssize_t written = ::write(fd, contents.data(), contents.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        // A write of nothing for a non-empty buffer makes no progress; only a full device
        // should do that, and looping on it would spin.
        if (written == 0) {
            return ENOSPC;
        }
        contents.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

}  // namespace terrane::base::io
