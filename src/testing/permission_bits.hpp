#pragma once

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>
#include <utility>

namespace terrane::common::test {

// Closes a directory (mode 000) for the lifetime of the object and makes this thread, and the
// threads it starts meanwhile, subject to that even as root: CAP_DAC_OVERRIDE and
// CAP_DAC_READ_SEARCH leave its effective capabilities (they stay permitted). The destructor
// raises them again and opens the directory, so that it can be cleaned up.
class ClosedDirectory {
  public:
    explicit ClosedDirectory(std::filesystem::path directory_) : directory(std::move(directory_)) {
        std::filesystem::permissions(directory, std::filesystem::perms::none);
        if (::geteuid() == 0 && ::syscall(SYS_capget, &header, saved) == 0) {
            __user_cap_data_struct lowered[2] = {saved[0], saved[1]};
            lowered[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
            lowered_ = ::syscall(SYS_capset, &header, lowered) == 0;
        }
    }
    ~ClosedDirectory() {
        if (lowered_) {
            ::syscall(SYS_capset, &header, saved);
        }
        std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
    }
    ClosedDirectory(const ClosedDirectory&) = delete;
    ClosedDirectory& operator=(const ClosedDirectory&) = delete;

    // Whether the directory really is closed to this thread.
    bool refuses() const {
        std::error_code error;
        std::filesystem::directory_iterator(directory, error);
        return error == std::errc::permission_denied;
    }

  private:
    std::filesystem::path directory;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved[2]{};
    bool lowered_ = false;
};

}  // namespace terrane::common::test
