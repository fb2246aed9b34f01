#pragma once

#include <cstdint>

#include "interrupt_watcher.hpp"
#include "options.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

struct DemoOptions {
    // Leave the temporary directory (source, published tree, storage) for inspection.
    bool keep = false;
    // The sample server's pace per connection, slow enough to watch the progress.
    std::uint64_t rateLimit = 4 * 1024 * 1024;
};

// `demo`: publishes a sample catalogue (two regions with maps and navigation packs of generated
// data) in a temporary directory, serves it in-process on a free 127.0.0.1 port, and runs the real
// flow against it: regions, download of both regions, status, delete of one region, status. No
// address beyond 127.0.0.1 is ever contacted. Main thread.
Result<void> runDemo(const GlobalOptions& global, InterruptWatcher& interrupts,
                     const DemoOptions& options);

}  // namespace terrane::tool
