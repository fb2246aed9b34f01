#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"

namespace terrane::common {

// Another process that holds a storage tree of the offline service. A service keeps an exclusive
// lock on its tree (the account directory below the service path) for as long as it lives; the
// system releases it when that process ends, however it ends. A service started on a tree held
// by another process still lists the catalogue, but leaves every pack alone: each pack operation
// ends Errored with code Filesystem and storageInUseMessage() as its message. The first pack
// operation after the other process has let go takes the tree over, reads back what is stored
// there (observers hear of every stored pack) and goes ahead.
struct OfflineStorageHolder {
    // The locked tree.
    std::filesystem::path path;
    // The holder's process id, when it could be read.
    optional<std::int64_t> pid;

    friend bool operator==(const OfflineStorageHolder&, const OfflineStorageHolder&) = default;
};

// "Offline storage <path> is in use by another process (pid <pid>)", without the part in
// brackets when the pid is unknown. Any thread.
TERRANE_EXPORT std::string storageInUseMessage(const OfflineStorageHolder& holder);

}  // namespace terrane::common
