#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "interrupt_watcher.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

// `network [HOST] [--watch]`: whether the network in general, or HOST (a name or an address),
// can be reached and over what: "WiFi", "WAN" (a modem or a metered connection) or "not
// reachable". Without --watch it prints the status once and exits 0 when reachable, 1 when
// not; with --watch it prints the status and then a line per change until Ctrl-C.
class NetworkCommand {
  public:
    // Adds the subcommand and its options to `app`, which keeps pointers into this object.
    explicit NetworkCommand(CLI::App& app);
    NetworkCommand(const NetworkCommand&) = delete;
    NetworkCommand& operator=(const NetworkCommand&) = delete;

    bool parsed() const { return command_->parsed(); }

    // Main thread.
    Result<void> run(InterruptWatcher& interrupts) const;

  private:
    CLI::App* command_;
    std::string host_;
    bool watch_ = false;
};

}  // namespace terrane::tool
