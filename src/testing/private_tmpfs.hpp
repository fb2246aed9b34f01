#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>

namespace terrane::common::test {

// A tmpfs over `directory` that only the calling thread sees, and the threads it starts while
// the tmpfs lives: the thread moves to a mount namespace of its own for the lifetime of the
// object, and back to the one it had when the object goes. Lets a test fill a small file system
// or hide /run and /dev without the rest of the machine noticing. Needs the right to make a mount
// namespace; mounted() says whether it was given. One thread only.
class PrivateTmpfs {
  public:
    explicit PrivateTmpfs(std::filesystem::path directory, const std::string& options = "")
        : directory_(std::move(directory)),
          original_(::open("/proc/thread-self/ns/mnt", O_RDONLY | O_CLOEXEC)) {
        mounted_ = original_ >= 0 && ::unshare(CLONE_NEWNS) == 0 &&
                   ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   ::mount("tmpfs", directory_.c_str(), "tmpfs", 0, options.c_str()) == 0;
    }
    ~PrivateTmpfs() {
        if (mounted_) {
            ::umount2(directory_.c_str(), MNT_DETACH);
        }
        if (original_ >= 0) {
            ::setns(original_, CLONE_NEWNS);
            ::close(original_);
        }
    }
    PrivateTmpfs(const PrivateTmpfs&) = delete;
    PrivateTmpfs& operator=(const PrivateTmpfs&) = delete;

    bool mounted() const { return mounted_; }

  private:
    std::filesystem::path directory_;
    int original_;
    bool mounted_ = false;
};

}  // namespace terrane::common::test
