#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "terrane/expected.hpp"
#include "util/file_descriptor.hpp"
#include "util/md5_digest.hpp"

namespace terrane::common {

// The MD5 digest of a file that is being written, taken on a thread of its own as the bytes land:
// the thread reads them back from the page cache behind the writer, so that the writer never waits
// for the digest and the file need not be read again once it is complete. The bytes from offset 0
// up to the first count given are hashed too, which is how a resumed file gets its whole digest.
//
// The owner (one thread: a download on the engine thread) tells it how far the file is written
// and finally asks for the digest; destruction stops the thread and joins it.
class FileDigestFollower final {
  public:
    // Follows the file open (readable) at `fd`, whose first `written` bytes are in place. Null
    // when no digest can be taken (no MD5, no descriptor or thread to spare): the download goes
    // on without one.
    static std::unique_ptr<FileDigestFollower> start(int fd, std::uint64_t written);

    FileDigestFollower(const FileDigestFollower&) = delete;
    FileDigestFollower& operator=(const FileDigestFollower&) = delete;
    ~FileDigestFollower();

    // The file's first `written` bytes are in place.
    void advance(std::uint64_t written);

    // Waits until the first `written` bytes, the whole file, are hashed and stops the thread. The
    // digest, or none when a read failed (the file was cut short behind the writer's back).
    optional<std::string> finish(std::uint64_t written);

    // The follower's own descriptor of the file, open until destruction.
    int descriptor() const { return file_.get(); }

    // Only for start().
    struct Key {
        explicit Key() = default;
    };
    FileDigestFollower(Key, base::io::FileDescriptor file, util::MD5 md5, std::uint64_t written);

  private:
    void run();

    base::io::FileDescriptor file_;
    util::MD5 md5_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t written_;
    std::uint64_t hashed_ = 0;
    bool finishing_ = false;
    bool stopping_ = false;
    bool failed_ = false;
    // Whether the thread sleeps for want of bytes, so that the writer wakes it only then.
    bool idle_ = false;

    std::thread thread_;
};

}  // namespace terrane::common
