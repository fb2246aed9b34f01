#pragma once

#include "options.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

// `status`: starts the offline service for every account stored under the storage directory (only
// those of --user and --base-url when given), lets start-up recovery report the stored packs and
// finish its checks (verification, lease extension), and prints each pack: region, revision,
// domain, state, bytes, path and lease expiry. Main thread.
Result<void> runStatus(const ToolContext& context);

}  // namespace terrane::tool
