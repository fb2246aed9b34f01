#pragma once

#include <filesystem>
#include <string>

#include "tool_error.hpp"

namespace terrane::tool {

// A fresh directory under $TMPDIR (else /tmp), removed with everything in it on destruction
// unless it is to be kept. One owner; main thread.
class ScratchDirectory {
  public:
    // `prefix` starts the directory's name ("terrane-demo" makes "terrane-demo-XXXXXX").
    static Result<ScratchDirectory> create(const std::string& prefix);
    ScratchDirectory(ScratchDirectory&& other) noexcept;
    ScratchDirectory& operator=(ScratchDirectory&&) = delete;
    ~ScratchDirectory();

    const std::filesystem::path& path() const { return path_; }
    void keep() { keep_ = true; }

  private:
    explicit ScratchDirectory(std::filesystem::path path) : path_(std::move(path)) {}
    std::filesystem::path path_;
    bool keep_ = false;
};

}  // namespace terrane::tool
