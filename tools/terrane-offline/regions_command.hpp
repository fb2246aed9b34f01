#pragma once

#include <string>
#include <terrane/offline/offline_data.hpp>
#include <vector>

#include "options.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

// `regions`: reads the catalogue and prints every region with its revision, name, last update and
// packs (size, data version); a JSON array with --json. Main thread.
Result<void> runRegions(const ToolContext& context);

// The catalogue listing as text or JSON; shared with the demo.
std::string formatRegions(const std::vector<common::OfflineDataRegionMetadata>& regions, bool json);

}  // namespace terrane::tool
