#pragma once

// Moving a test's thread into fresh Linux namespaces, for tests that change the network or the
// mounts without touching the machine's own. Header-only.

#include <sched.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace terrane::common::test {

inline bool writeWholeFile(const char* path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    file.close();
    return static_cast<bool>(file);
}

// Unshares the `flags` namespaces (CLONE_NEWNET, CLONE_NEWNS) for the calling thread: directly
// when privileged, else inside a fresh user namespace that maps the caller to root there (which
// the kernel allows only in a single-threaded process). False when neither is allowed.
inline bool enterFreshNamespaces(int flags) {
    if (::unshare(flags) == 0) {
        return true;
    }
    const uid_t uid = ::geteuid();
    const gid_t gid = ::getegid();
    if (::unshare(CLONE_NEWUSER | flags) != 0) {
        return false;
    }
    return writeWholeFile("/proc/self/setgroups", "deny") &&
           writeWholeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") &&
           writeWholeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

}  // namespace terrane::common::test
