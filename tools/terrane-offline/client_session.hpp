#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <terrane/client/offline_client.hpp>
#include <terrane/reachability/reachability_interface.hpp>
#include <vector>

#include "interrupt_watcher.hpp"
#include "options.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

// One account's OfflineClient for the length of a command, with what every command around it
// needs: Ctrl-C and SIGTERM become a stop request, the service's log goes to stderr with
// --verbose, and a failed catalogue read becomes the user-facing error and exit status. With the
// NotOverWAN policy it watches how the catalogue's host is reached.
//
// Main thread only; at most one at a time (the service underneath is process-wide). The
// destructor joins the client's thread and releases the service, which finishes what is queued.
class ClientSession {
  public:
    explicit ClientSession(const ToolContext& context,
                           common::NetworkPolicy network = common::NetworkPolicy::AnyNetwork);
    ~ClientSession();
    ClientSession(const ClientSession&) = delete;
    ClientSession& operator=(const ClientSession&) = delete;

    common::OfflineClient& client() { return *client_; }
    // Stopped by Ctrl-C.
    std::stop_token stopToken() const { return stop_.get_token(); }
    bool interrupted() const { return stop_.stop_requested(); }

    // Reads the catalogue, waiting at most `limit`.
    Result<std::vector<common::OfflineDataRegionMetadata>> listRegions(
        std::chrono::milliseconds limit = std::chrono::hours(1));

    // Waits until the operation ends, calling `tick` about ten times a second meanwhile.
    void wait(const common::PackOperation& operation, const std::function<void()>& tick) const;

    // The account's endpoint as the service uses it (the built-in one when none was given).
    const std::string& endpoint() const { return endpoint_; }

  private:
    const ToolContext& context_;
    std::string endpoint_;
    std::stop_source stop_;
    InterruptListener interruptListener_;
    std::shared_ptr<common::ReachabilityInterface> reachability_;
    std::shared_ptr<common::OfflineClientObserver> logPrinter_;
    std::unique_ptr<common::OfflineClient> client_;
};

// The host part of an http(s) URL: what NotOverWAN asks the routing table about.
std::string hostOf(const std::string& url);

}  // namespace terrane::tool
