#pragma once

#include <cstdint>
#include <string>

#include "options.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

struct DownloadRequest {
    std::string region;
    common::optional<std::uint32_t> revision;
    // "maps", "navigation" or "all".
    std::string domain = "all";
};

// `download`: fetches the region's packs through the offline service and follows them until each
// is Available, Expired or Errored, showing progress. Succeeds only when every pack is Available.
// Ctrl-C cancels the downloads (a later run resumes them) and fails with status 130. Main thread.
Result<void> runDownload(const ToolContext& context, const DownloadRequest& request);

}  // namespace terrane::tool
