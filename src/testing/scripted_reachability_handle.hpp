#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "reachability/reachability_flags.hpp"
#include "reachability/reachability_handle.hpp"

namespace terrane::common::test {

// A ReachabilityHandle for tests: it answers whatever `flags` holds when it is asked, and its
// notifier does nothing, so changes reach listeners only when the test posts to the notification
// centre. The flags are shared so that the test can still set them, from any thread, once a
// service owns the handle. Header-only, so that only the tests that use it pull it in.
class ScriptedReachabilityHandle final : public ReachabilityHandle {
  public:
    using Flags = std::shared_ptr<std::atomic<ReachabilityFlags>>;

    explicit ScriptedReachabilityHandle(Flags flags) : flags_(std::move(flags)) {}
    explicit ScriptedReachabilityHandle(ReachabilityFlags flags)
        : flags_(std::make_shared<std::atomic<ReachabilityFlags>>(flags)) {}

    optional<ReachabilityFlags> flags() override { return flags_->load(); }
    bool startNotifier() override { return true; }
    void stopNotifier() override {}

  private:
    Flags flags_;
};

}  // namespace terrane::common::test
