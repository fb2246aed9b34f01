#pragma once

#include <string>

#include "options.hpp"
#include "pack_download.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

struct UpdateRequest {
    // Every stored region when empty.
    std::string region;
    bool dryRun = false;
    DownloadSettings settings;
};

// `update`: for each stored region (or the one named) whose catalogue entry has a newer revision,
// downloads that revision's packs of the domains stored, and once they are all available deletes
// the older revisions. With `dryRun` it only says what it would do. Succeeds when every update
// went through (or nothing was out of date). Main thread.
Result<void> runUpdate(const ToolContext& context, const UpdateRequest& request);

}  // namespace terrane::tool
