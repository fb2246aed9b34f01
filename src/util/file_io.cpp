#include "util/file_io.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <random>
#include <string>
#include <system_error>
#include <utility>

#include "util/file_descriptor.hpp"

namespace terrane::base::io {

namespace {

using terrane::common::expected;
using terrane::common::unexpected;

constexpr std::size_t readChunkSize = 64 * 1024;
// Leaves room in NAME_MAX (255) for the dot and the ".tmp-XXXXXX" suffix.
constexpr std::size_t maxTemporaryStemLength = 200;
constexpr int temporaryNameAttempts = 100;
constexpr std::size_t sectorSize = 512;

unexpected<std::string> systemError(int error) {
    return unexpected(std::generic_category().message(error));
}

int openRetrying(const char* path, int flags, mode_t mode = 0) {
    int fd;
    do {
        fd = ::open(path, flags, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

int fsyncRetrying(int fd) {
    int result;
    do {
        result = ::fsync(fd);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

std::string randomSuffix() {
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    thread_local std::mt19937_64 engine{std::random_device{}()};
    std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
    std::string suffix(6, '\0');
    for (auto& character : suffix) {
        character = alphabet[pick(engine)];
    }
    return suffix;
}

// Removes the temporary file unless release() was called (after the rename had taken it).
class TemporaryFile {
  public:
    TemporaryFile(std::filesystem::path path, int fd) : path_(std::move(path)), fd_(fd) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (!released_) {
            ::unlink(path_.c_str());
        }
    }

    const std::filesystem::path& path() const { return path_; }
    FileDescriptor& descriptor() { return fd_; }
    void release() { released_ = true; }

  private:
    std::filesystem::path path_;
    FileDescriptor fd_;
    bool released_ = false;
};

// Creates the temporary beside `target` with O_EXCL rather than mkstemp, so that the kernel
// applies the umask to 0666 and the file ends up with the permissions of any other created file.
expected<int, int> createTemporary(const std::filesystem::path& target,
                                   std::filesystem::path& temporary) {
    std::string stem = target.filename().string();
    if (stem.size() > maxTemporaryStemLength) {
        stem.resize(maxTemporaryStemLength);
    }
    const std::filesystem::path directory = target.parent_path();
    for (int attempt = 0; attempt < temporaryNameAttempts; ++attempt) {
        temporary = directory / ("." + stem + ".tmp-" + randomSuffix());
        const int fd =
            openRetrying(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            return fd;
        }
        if (errno != EEXIST) {
            return unexpected(errno);
        }
    }
    return unexpected(EEXIST);
}

// Makes the rename itself durable.
int syncDirectory(const std::filesystem::path& directory) {
    const int fd = openRetrying(directory.empty() ? "." : directory.c_str(),
                                O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    FileDescriptor descriptor(fd);
    const int error = fsyncRetrying(descriptor.get());
    // Some file systems cannot flush a directory at all; there is nothing more to be had there.
    if (error == EINVAL || error == ENOTSUP) {
        return 0;
    }
    return error;
}

// "." + a name + ".tmp-" + six characters of the suffix alphabet.
bool isInterruptedWrite(std::string_view name) {
    constexpr std::string_view marker = ".tmp-";
    constexpr std::size_t suffixLength = 6;
    if (name.size() < 1 + 1 + marker.size() + suffixLength || !name.starts_with('.')) {
        return false;
    }
    const std::string_view suffix = name.substr(name.size() - suffixLength);
    return name.substr(name.size() - suffixLength - marker.size(), marker.size()) == marker &&
           std::ranges::all_of(suffix, [](char c) {
               return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
           });
}

}  // namespace

void removeInterruptedWrites(const std::filesystem::path& directory) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code typeError;
        if (entry->is_regular_file(typeError) && !entry->is_symlink(typeError) &&
            isInterruptedWrite(entry->path().filename().string())) {
            std::filesystem::remove(entry->path(), typeError);
        }
    }
}

expected<std::string, std::string> readFile(const std::filesystem::path& path) {
    // O_NONBLOCK keeps the open of a FIFO without a writer from waiting; it is refused below.
    const int fd = openRetrying(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return systemError(errno);
    }
    FileDescriptor descriptor(fd);

    struct stat status {};
    if (::fstat(descriptor.get(), &status) != 0) {
        return systemError(errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return systemError(EISDIR);
    }
    if (!S_ISREG(status.st_mode)) {
        return unexpected(std::string("Not a regular file"));
    }

    std::string contents;
    if (status.st_size > 0) {
        contents.reserve(static_cast<std::size_t>(status.st_size));
    }
    std::array<char, readChunkSize> chunk;
    for (;;) {
        const ssize_t count = ::read(descriptor.get(), chunk.data(), chunk.size());
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return systemError(errno);
        }
        if (count == 0) {
            return contents;
        }
        contents.append(chunk.data(), static_cast<std::size_t>(count));
    }
}

expected<void, std::string> writeFileAtomically(const std::filesystem::path& path,
                                                std::string_view contents) {
    std::filesystem::path temporaryPath;
    const auto created = createTemporary(path, temporaryPath);
    if (!created) {
        return systemError(created.error());
    }
    TemporaryFile temporary(temporaryPath, *created);

    if (const int error = writeAll(temporary.descriptor().get(), contents)) {
        return systemError(error);
    }
    // Without this the rename could reach the disk before the data, and a crash would leave an
    // empty or partial file under the target's name.
    if (const int error = fsyncRetrying(temporary.descriptor().get())) {
        return systemError(error);
    }
    if (const int error = temporary.descriptor().close()) {
        return systemError(error);
    }
    if (::rename(temporary.path().c_str(), path.c_str()) != 0) {
        return systemError(errno);
    }
    temporary.release();

    if (const int error = syncDirectory(path.parent_path())) {
        return systemError(error);
    }
    return {};
}

expected<void, std::string> rewriteFile(const std::filesystem::path& path,
                                        std::string_view contents) {
    if (!contents.empty() && contents.size() <= sectorSize) {
        const int fd = openRetrying(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd >= 0) {
            FileDescriptor descriptor(fd);
            struct stat status {};
            if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
                static_cast<std::size_t>(status.st_size) == contents.size() &&
                ::pwrite(fd, contents.data(), contents.size(), 0) ==
                    static_cast<ssize_t>(contents.size())) {
                return {};
            }
        }
    }
    return writeFileAtomically(path, contents);
}

}  // namespace terrane::base::io
