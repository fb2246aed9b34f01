#pragma once

#include <cstdint>
#include <string>

#include "options.hpp"
#include "pack_download.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

struct DownloadRequest {
    std::string region;
    common::optional<std::uint32_t> revision;
    // "maps", "navigation" or "all".
    std::string domain = "all";
    DownloadSettings settings;
};

// `download`: fetches the region's packs through an OfflineClient and follows them until each is
// available or has failed for good (retrying a dropped connection unless told not to), showing
// progress. Succeeds only when every pack is Available. Ctrl-C cancels the downloads (a later run
// resumes them) and fails with status 130. Main thread.
Result<void> runDownload(const ToolContext& context, const DownloadRequest& request);

}  // namespace terrane::tool
