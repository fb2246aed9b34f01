#include "terrane/util/md5.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <system_error>

#include "util/digest_cache.hpp"
#include "util/file_descriptor.hpp"
#include "util/md5_digest.hpp"

namespace terrane::common::util {
namespace {

using terrane::base::io::FileDescriptor;

// Large reads keep the per-call overhead of read(2) far below the cost of the digest itself.
constexpr std::size_t readBufferSize = std::size_t{1} << 20;

std::string systemError(const char* operation, const std::string& path, int error) {
    return std::string(operation) + " \"" + path + "\": " + std::generic_category().message(error);
}

[[noreturn]] void digestUnavailable(const std::string& reason) {
    // md5String has no error channel: without MD5 in libcrypto the library cannot name its
    // storage directories nor make usage tokens, so there is nothing sensible to go on with.
    std::fprintf(stderr, "TerraneCommon: MD5 digest unavailable: %s\n", reason.c_str());
    std::abort();
}

}  // namespace

std::string md5String(const std::string& data) {
    auto md5 = MD5::create();
    if (!md5) {
        digestUnavailable(md5.error());
    }
    if (auto updated = md5->update(data.data(), data.size()); !updated) {
        digestUnavailable(updated.error());
    }
    auto digest = md5->hexdigest();
    if (!digest) {
        digestUnavailable(digest.error());
    }
    return std::move(*digest);
}

expected<std::string, std::string> md5File(const std::string& path) {
    // Non-blocking, so that opening a FIFO without a writer cannot stall; the descriptor is
    // refused below anyway unless it is a regular file, where the flag changes nothing.
    FileDescriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    if (file.get() < 0) {
        return unexpected(systemError("open", path, errno));
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        return unexpected(systemError("fstat", path, errno));
    }
    if (S_ISDIR(status.st_mode)) {
        return unexpected(systemError("read", path, EISDIR));
    }
    if (!S_ISREG(status.st_mode)) {
        return unexpected("read \"" + path + "\": Not a regular file");
    }
    // A file this process hashed while writing it, untouched since.
    if (auto known = DigestCache::instance().find(FileIdentity::of(status))) {
        return std::move(*known);
    }
    // Only a hint: failing to give it costs speed, not correctness.
    (void)::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);

    auto md5 = MD5::create();
    if (!md5) {
        return unexpected(std::move(md5.error()));
    }
    auto buffer = std::make_unique_for_overwrite<unsigned char[]>(readBufferSize);
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer.get(), readBufferSize);
        if (count == 0) {
            break;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return unexpected(systemError("read", path, errno));
        }
        if (auto updated = md5->update(buffer.get(), static_cast<std::size_t>(count)); !updated) {
            return unexpected(std::move(updated.error()));
        }
    }
    return md5->hexdigest();
}

}  // namespace terrane::common::util
