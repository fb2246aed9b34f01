#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "offline/offline_data_pack_headers.hpp"
#include "terrane/offline/offline_data.hpp"

namespace terrane::common::test {

// A fresh directory below the system's temporary directory, removed with everything in it when
// the object goes. Its name is unique within the machine.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const noexcept { return path_; }

  private:
    std::filesystem::path path_;
};

// Builds the files of an offline service's storage tree, the way a service that ran before
// would have left them, for a service started on `servicePath` with `baseURL` and `username`.
// Revisions are addressed by their directory name, so that tests can also make names that the
// service must refuse ("0", "01x"). Every write creates the missing directories on the way and
// throws std::runtime_error (or std::filesystem::filesystem_error) if it fails.
//
// A plain helper for one test thread; it keeps no state beyond the root.
class StorageTree {
  public:
    StorageTree(const std::filesystem::path& servicePath, std::string_view baseURL,
                std::string_view username);

    // The account directory below the service path.
    const std::filesystem::path& root() const noexcept { return root_; }

    // The pack file (".../maps/1"); its download file and header record are derived from it.
    std::filesystem::path packFile(std::string_view regionId, std::string_view revisionName,
                                   OfflineDataDomain domain) const;

    // "metadata.json" of the revision, as the service writes it.
    void writeMetadata(std::string_view revisionName, const OfflineDataRegionMetadata& region);
    // The pack's header record.
    void writeHeaders(std::string_view regionId, std::string_view revisionName,
                      OfflineDataDomain domain, const OfflineDataPackHeaders& headers);
    // Any file, with any content; a relative path is taken from the root.
    void writeFile(const std::filesystem::path& file, std::string_view contents);

  private:
    std::filesystem::path root_;
};

// Every regular file below `directory`, by its path relative to it, with its content. For
// checking that an operation left a tree exactly as it was.
std::map<std::string, std::string> treeContents(const std::filesystem::path& directory);

// The files below `directory` (relative paths, sorted) whose name or content holds `needle`,
// also in its percent-encoded forms (those redactSecret masks). For proving that no secret
// reached the disk; an empty needle finds nothing. Reads every file whole: meant for small trees.
std::vector<std::string> filesContaining(const std::filesystem::path& directory,
                                         std::string_view needle);

// A region revision with a maps and/or a navigation pack (format 1) and a small outline.
OfflineDataRegionMetadata sampleRegion(std::string id, std::uint32_t revision, bool maps = true,
                                       bool navigation = false);

}  // namespace terrane::common::test
