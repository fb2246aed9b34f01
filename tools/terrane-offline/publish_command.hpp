#pragma once

#include <string>

#include "tool_error.hpp"

namespace terrane::tool {

// `publish SRC OUT --user NAME`: see publishCatalogue; prints what was published (JSON with
// --json). Main thread.
Result<void> runPublish(const std::string& source, const std::string& out, const std::string& user,
                        bool json);

}  // namespace terrane::tool
