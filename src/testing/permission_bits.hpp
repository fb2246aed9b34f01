#pragma once

#include <dirent.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>
#include <vector>

namespace terrane::common::test {

// Makes this thread, and the threads it starts from now on, subject to permission bits even
// when it runs as root, by lowering CAP_DAC_OVERRIDE and CAP_DAC_READ_SEARCH from its effective
// capabilities (they stay permitted, and the destructor raises them again). Without root
// privileges there is nothing to lower.
class PermissionBitsApply {
  public:
    PermissionBitsApply() {
        if (::geteuid() != 0) {
            return;
        }
        if (::syscall(SYS_capget, &header, saved) != 0) {
            return;
        }
        __user_cap_data_struct lowered[2] = {saved[0], saved[1]};
        lowered[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        changed = ::syscall(SYS_capset, &header, lowered) == 0;
    }
    ~PermissionBitsApply() {
        if (changed) {
            ::syscall(SYS_capset, &header, saved);
        }
    }
    PermissionBitsApply(const PermissionBitsApply&) = delete;
    PermissionBitsApply& operator=(const PermissionBitsApply&) = delete;

    // Whether a directory of mode 000 really is closed to this thread.
    static bool refuses(const std::filesystem::path& directory) {
        DIR* opened = ::opendir(directory.c_str());
        if (opened == nullptr) {
            return errno == EACCES;
        }
        ::closedir(opened);
        return false;
    }

  private:
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved[2]{};
    bool changed = false;
};

// Closes directories (mode 000) for the length of a test and opens them again, so that they can
// be cleaned up.
class ClosedDirectories {
  public:
    explicit ClosedDirectories(std::vector<std::filesystem::path> directories_)
        : directories(std::move(directories_)) {
        for (const auto& directory : directories) {
            std::filesystem::permissions(directory, std::filesystem::perms::none);
        }
    }
    ~ClosedDirectories() {
        for (const auto& directory : directories) {
            std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
        }
    }
    ClosedDirectories(const ClosedDirectories&) = delete;
    ClosedDirectories& operator=(const ClosedDirectories&) = delete;

  private:
    std::vector<std::filesystem::path> directories;
};

}  // namespace terrane::common::test
