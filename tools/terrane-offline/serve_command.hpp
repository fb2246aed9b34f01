#pragma once

#include "interrupt_watcher.hpp"
#include "static_file_server.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

// `serve DIR`: serves a published catalogue tree on 127.0.0.1 until Ctrl-C or SIGTERM. The first
// line on stdout names the address (scripts read the port from it). Main thread.
Result<void> runServe(StaticFileServerOptions options, InterruptWatcher& interrupts);

}  // namespace terrane::tool
