#include "network_command.hpp"

#include <arpa/inet.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <terrane/reachability/reachability_factory.hpp>

namespace terrane::tool {
namespace {

using common::NetworkStatus;

// How long a one-off answer waits for a host name's first resolution.
constexpr auto kResolutionWait = std::chrono::seconds(5);

// The statuses the service reports, handed from the monitor thread to the main thread.
class StatusMailbox {
  public:
    void post(NetworkStatus status) {
        {
            const std::lock_guard lock(mutex_);
            latest_ = status;
            ++count_;
        }
        changed_.notify_all();
    }
    void interrupt() {
        {
            const std::lock_guard lock(mutex_);
            interrupted_ = true;
        }
        changed_.notify_all();
    }
    // Waits until more than `seen` statuses arrived, the watch is interrupted, or `limit` ends.
    // Returns the count seen and the latest status.
    std::pair<int, NetworkStatus> wait(int seen, std::chrono::steady_clock::time_point limit) {
        std::unique_lock lock(mutex_);
        changed_.wait_until(lock, limit, [&] { return count_ > seen || interrupted_; });
        return {count_, latest_};
    }
    bool interrupted() {
        const std::lock_guard lock(mutex_);
        return interrupted_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    NetworkStatus latest_ = NetworkStatus::NotReachable;
    int count_ = 0;
    bool interrupted_ = false;
};

// A numeric address needs no resolution, so its first answer is final.
bool needsResolution(const std::string& host) {
    unsigned char address[16];
    return !host.empty() && ::inet_pton(AF_INET, host.c_str(), address) != 1 &&
           ::inet_pton(AF_INET6, host.c_str(), address) != 1;
}

}  // namespace

NetworkCommand::NetworkCommand(CLI::App& app)
    : command_(app.add_subcommand(
          "network", "Show whether the network, or a host, can be reached, and over what")) {
    command_->add_option("HOST", host_, "A host name or address (default: the network at large)");
    command_->add_flag("--watch", watch_, "Print a line per change until Ctrl-C");
}

Result<void> NetworkCommand::run(InterruptWatcher& interrupts) const {
    const std::string target = host_.empty() ? "network" : host_;
    const auto print = [&](NetworkStatus status) {
        std::printf("%s: %s\n", target.c_str(), common::toString(status).c_str());
        std::fflush(stdout);
    };

    StatusMailbox mailbox;
    InterruptListener listener(&interrupts, [&mailbox] { mailbox.interrupt(); });
    auto service = common::ReachabilityFactory::reachability(
        host_.empty() ? common::nullopt : common::optional<std::string>(host_));
    service->addListener([&mailbox](NetworkStatus status) { mailbox.post(status); });
    service->start();
    auto [seen, status] = mailbox.wait(0, std::chrono::steady_clock::now());

    if (!watch_) {
        // A name is resolved in the background: give its first answer a moment to arrive.
        if (needsResolution(host_) && status == NetworkStatus::NotReachable) {
            std::tie(seen, status) =
                mailbox.wait(seen, std::chrono::steady_clock::now() + kResolutionWait);
        }
        service->stop();
        print(status);
        if (status == NetworkStatus::NotReachable) {
            return fail(Failure, target + " cannot be reached");
        }
        return {};
    }

    print(status);
    NetworkStatus shown = status;
    while (!mailbox.interrupted()) {
        std::tie(seen, status) = mailbox.wait(seen, std::chrono::steady_clock::time_point::max());
        if (status != shown && !mailbox.interrupted()) {
            print(status);
            shown = status;
        }
    }
    service->stop();
    return {};
}

}  // namespace terrane::tool
