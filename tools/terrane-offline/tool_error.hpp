#pragma once

#include <string>
#include <terrane/expected.hpp>
#include <utility>

namespace terrane::tool {

// The process exit statuses, documented for scripts that call the tool.
enum ExitStatus : int {
    Success = 0,
    // The operation ran but did not reach its goal (a pack did not become available, a region is
    // unknown, the catalogue answered nonsense).
    Failure = 1,
    // The command line itself is wrong.
    Usage = 2,
    // The catalogue or pack server refused the credentials (HTTP 401 or 403).
    Unauthorized = 3,
    // The catalogue or pack server could not be reached.
    Unreachable = 4,
    // A local input is unusable: the storage directory, the token file, the files to publish.
    BadInput = 5,
    // Ctrl-C (SIGINT) or SIGTERM, after the work under way was cancelled.
    Interrupted = 130,
};

// Why a command failed: the exit status and the one line that explains it to the user.
struct ToolError {
    int status = Failure;
    std::string message;
};

template <typename T>
using Result = common::expected<T, ToolError>;

inline common::unexpected<ToolError> fail(int status, std::string message) {
    return common::unexpected<ToolError>(ToolError{status, std::move(message)});
}

}  // namespace terrane::tool
