#pragma once

#include <cstdint>
#include <string>

#include "options.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

struct DeleteRequest {
    std::string region;
    // Every stored revision when absent.
    common::optional<std::uint32_t> revision;
    // "maps", "navigation" or "all".
    std::string domain = "all";
};

// `delete`: deletes the matching stored packs, acknowledging the deletion on the tool's behalf,
// and waits until each is Deleted. Needs no network. Main thread.
Result<void> runDelete(const ToolContext& context, const DeleteRequest& request);

}  // namespace terrane::tool
