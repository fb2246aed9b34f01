#pragma once

#include <cstdint>

namespace terrane::common {

// Severity of a log message. The numeric order is the filter's order: a message passes when its
// level is at least the configured filter level.
enum class LoggingLevel : int32_t {
    Debug = 0,
    Info = 1,
    Warning = 2,
    Error = 3,
};

}  // namespace terrane::common
