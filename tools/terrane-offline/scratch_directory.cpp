#include "scratch_directory.hpp"

#include <stdlib.h>

#include <cstdlib>

namespace terrane::tool {

namespace fs = std::filesystem;

Result<ScratchDirectory> ScratchDirectory::create(const std::string& prefix) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        (fs::path(base != nullptr && base[0] == '/' ? base : "/tmp") / (prefix + "-XXXXXX"))
            .string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        return fail(BadInput, "cannot create a temporary directory from " + pattern);
    }
    return ScratchDirectory(pattern);
}

ScratchDirectory::ScratchDirectory(ScratchDirectory&& other) noexcept
    : path_(std::move(other.path_)), keep_(other.keep_) {
    other.path_.clear();
}

ScratchDirectory::~ScratchDirectory() {
    if (!path_.empty() && !keep_) {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
}

}  // namespace terrane::tool
