#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <string>

#include "service_events.hpp"

namespace terrane::tool {

// Shows how far a set of pack downloads has come. On a terminal it keeps one live line (bar,
// percent, bytes, rate, time left) and rewrites it in place; otherwise it writes a plain progress
// line at most once per `plainInterval`, so that logs stay readable.
//
// Main thread only.
class ProgressDisplay {
  public:
    using Clock = std::chrono::steady_clock;

    ProgressDisplay(std::FILE* out, bool terminal,
                    std::chrono::milliseconds plainInterval = std::chrono::seconds(1));

    // A pack to follow and the size the catalogue gives for it.
    void add(const PackKey& key, std::uint64_t expectedBytes);

    // The bytes on disk for the pack, as the service reported them.
    void update(const PackKey& key, std::uint64_t bytes, Clock::time_point now);

    // The pack is done (or given up): it counts as complete when `complete`.
    void finish(const PackKey& key, bool complete, Clock::time_point now);

    // Redraws the live line, or writes a plain line when one is due.
    void tick(Clock::time_point now);

    // Writes a line of its own, keeping the live line below it.
    void println(const std::string& line);

    // Clears the live line for good.
    void close();

  private:
    struct Pack {
        std::uint64_t expected = 0;
        std::uint64_t bytes = 0;
        // The first count reported in this run: what was already on disk (a resumed download).
        common::optional<std::uint64_t> baseline;
    };

    std::uint64_t totalExpected() const;
    std::uint64_t totalBytes() const;
    // Bytes fetched in this run, the basis of the rate.
    std::uint64_t fetchedThisRun() const;
    double rate() const;
    std::string summary() const;
    void clearLiveLine();
    void drawLiveLine();

    std::FILE* out_;
    bool terminal_;
    std::chrono::milliseconds plainInterval_;
    std::map<PackKey, Pack> packs_;
    std::deque<std::pair<Clock::time_point, std::uint64_t>> samples_;
    Clock::time_point lastDraw_{};
    std::uint64_t lastPlainBytes_ = 0;
    bool liveLineShown_ = false;
    std::size_t liveLineWidth_ = 0;
};

}  // namespace terrane::tool
