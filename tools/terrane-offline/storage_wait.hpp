#pragma once

#include <string>

#include "options.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

// Waits until no other process holds the storage tree of the account (`baseUrl`, `user`), for at
// most the context's wait limit, saying "waiting for process N" once on a terminal. A tree still
// held after that is an unusable input: status BadInput, with the library's own words. Ctrl-C
// while waiting ends the process the default way, since nothing has started yet. Main thread.
Result<void> waitForStorage(const ToolContext& context, const std::string& baseUrl,
                            const std::string& user);

}  // namespace terrane::tool
