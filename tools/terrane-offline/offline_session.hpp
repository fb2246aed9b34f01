#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <terrane/offline/offline_service.hpp>
#include <vector>

#include "interrupt_watcher.hpp"
#include "options.hpp"
#include "service_events.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

// A pack as the service last reported it.
struct KnownPack {
    common::OfflineDataRegionMetadata region;
    common::OfflineDataPack pack;
};

// One account's offline service for the length of a command: registers the tool's observer,
// takes the process's service for the account, and releases both on destruction (which lets the
// worker finish what is queued and joins it). While it lives, Ctrl-C arrives as an Interrupted
// event.
//
// Main thread only; at most one session at a time (the service is a process-wide singleton).
class OfflineSession {
  public:
    // `baseUrl` and `user` name the account; the token, storage directory and verbosity come from
    // the context.
    OfflineSession(const ToolContext& context, const std::string& baseUrl, const std::string& user);
    ~OfflineSession();
    OfflineSession(const OfflineSession&) = delete;
    OfflineSession& operator=(const OfflineSession&) = delete;

    // The next event, or nothing after `timeout`. Pack events update packs() first; log lines are
    // printed to stderr with --verbose.
    common::optional<ServiceEvent> next(std::chrono::milliseconds timeout);

    // Every visible pack as last reported (Deleted ones are dropped).
    const std::map<PackKey, KnownPack>& packs() const { return packs_; }

    // Waits until the service has announced every stored pack.
    Result<void> waitUntilInitialized();

    // Waits until the service falls idle, but no longer than `limit`; false on time-out.
    Result<bool> waitUntilIdle(std::chrono::milliseconds limit);

    // Reads the catalogue, waiting at most `limit`; failures become the user-facing error and
    // exit status (Unreachable when no answer came in time).
    Result<std::vector<common::OfflineDataRegionMetadata>> listRegions(
        std::chrono::milliseconds limit = std::chrono::hours(1));

    // The account's endpoint as the service uses it (the built-in one when none was given).
    const std::string& endpoint() const { return endpoint_; }
    const std::string& user() const { return user_; }

  private:
    void printLog(const std::string& message) const;

    const ToolContext& context_;
    std::string endpoint_;
    std::string user_;
    std::shared_ptr<EventQueue> queue_;
    std::shared_ptr<QueueingObserver> observer_;
    std::map<PackKey, KnownPack> packs_;
    InterruptListener interruptListener_;
    std::shared_ptr<common::OfflineService> service_;
};

// The exit status and message for a failed catalogue read.
ToolError catalogueError(const common::OfflineDataError& error, const std::string& endpoint,
                         const std::string& user, const Redactor& redact);

}  // namespace terrane::tool
