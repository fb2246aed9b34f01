#pragma once

#include <cstdint>
#include <string>
#include <terrane/client/network_policy.hpp>
#include <terrane/offline/offline_data.hpp>
#include <vector>

#include "client_session.hpp"
#include "options.hpp"
#include "service_events.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

// How `download` and `update` go about their packs.
struct DownloadSettings {
    // How many times a pack is asked for in all (1: no retry; 0: without limit). Bounded by
    // default so that an unattended run against a server that stays down ends by itself: with the
    // growing delay, 20 attempts without any progress take about an hour.
    std::uint32_t attempts = 20;
    common::NetworkPolicy network = common::NetworkPolicy::AnyNetwork;
};

// How one pack ended.
struct PackOutcome {
    PackKey key;
    // Available with its path, or the state the pack was left in with the error that ended it.
    common::OfflineDataPack pack;
    // Why the pack ended without becoming available, when the service did not say.
    std::string note;
};

// Downloads the region's packs of `domains` (each offered by the region) and waits until every
// one is available or has failed for good, showing progress on stdout (a live line on a
// terminal, plain lines otherwise, nothing with --json), a line when a pack waits for a retry or
// for the network, and a line per pack at its end. Ctrl-C cancels the downloads (their partial
// files stay) and fails with status 130. Main thread.
Result<std::vector<PackOutcome>> downloadPacks(
    ClientSession& session, const ToolContext& context,
    const common::OfflineDataRegionMetadata& region,
    const std::vector<common::OfflineDataDomain>& domains, const DownloadSettings& settings);

// Success when every pack is available; otherwise the status the worst failure calls for.
Result<void> judge(const std::vector<PackOutcome>& outcomes);

// The --json form of the outcomes of `download`.
std::string outcomesJson(const std::vector<PackOutcome>& outcomes, const ToolContext& context);

}  // namespace terrane::tool
