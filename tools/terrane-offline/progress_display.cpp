#include "progress_display.hpp"

#include <algorithm>
#include <array>
#include <cmath>

#include "text_format.hpp"

namespace terrane::tool {

using namespace std::chrono_literals;

namespace {

// Rates are averaged over this window, long enough to smooth bursts, short enough to follow a
// stall.
constexpr auto kRateWindow = 5s;
constexpr auto kTerminalRedraw = 100ms;
constexpr std::size_t kBarWidth = 24;

}  // namespace

ProgressDisplay::ProgressDisplay(std::FILE* out, bool terminal,
                                 std::chrono::milliseconds plainInterval)
    : out_(out), terminal_(terminal), plainInterval_(plainInterval) {
}

void ProgressDisplay::add(const PackKey& key, std::uint64_t expectedBytes) {
    packs_[key].expected = expectedBytes;
}

void ProgressDisplay::update(const PackKey& key, std::uint64_t bytes, Clock::time_point now) {
    auto found = packs_.find(key);
    if (found == packs_.end()) {
        return;
    }
    Pack& pack = found->second;
    if (!pack.baseline) {
        pack.baseline = bytes;
    }
    pack.bytes = bytes;
    samples_.emplace_back(now, fetchedThisRun());
    while (samples_.size() > 2 && now - samples_.front().first > kRateWindow) {
        samples_.pop_front();
    }
}

void ProgressDisplay::finish(const PackKey& key, bool complete, Clock::time_point now) {
    auto found = packs_.find(key);
    if (found == packs_.end()) {
        return;
    }
    if (complete) {
        found->second.bytes = found->second.expected;
        if (!found->second.baseline) {
            found->second.baseline = found->second.expected;
        }
    }
    samples_.emplace_back(now, fetchedThisRun());
}

std::uint64_t ProgressDisplay::totalExpected() const {
    std::uint64_t total = 0;
    for (const auto& [key, pack] : packs_) {
        total += pack.expected;
    }
    return total;
}

std::uint64_t ProgressDisplay::totalBytes() const {
    std::uint64_t total = 0;
    for (const auto& [key, pack] : packs_) {
        total += std::min(pack.bytes, pack.expected);
    }
    return total;
}

std::uint64_t ProgressDisplay::fetchedThisRun() const {
    std::uint64_t total = 0;
    for (const auto& [key, pack] : packs_) {
        if (pack.baseline && pack.bytes > *pack.baseline) {
            total += pack.bytes - *pack.baseline;
        }
    }
    return total;
}

double ProgressDisplay::rate() const {
    if (samples_.size() < 2) {
        return 0.0;
    }
    const auto& [firstTime, firstBytes] = samples_.front();
    const auto& [lastTime, lastBytes] = samples_.back();
    const double seconds = std::chrono::duration<double>(lastTime - firstTime).count();
    if (seconds <= 0.05 || lastBytes < firstBytes) {
        return 0.0;
    }
    return static_cast<double>(lastBytes - firstBytes) / seconds;
}

std::string ProgressDisplay::summary() const {
    const std::uint64_t expected = totalExpected();
    const std::uint64_t bytes = totalBytes();
    const int percent =
        expected == 0 ? 100 : static_cast<int>(static_cast<double>(bytes) * 100.0 / expected);
    const double currentRate = rate();
    std::string text = std::to_string(percent) + "%  " + formatBytes(bytes) + " of " +
                       formatBytes(expected) + "  " + formatRate(currentRate);
    if (currentRate > 0.0 && bytes < expected) {
        const auto left = std::chrono::seconds(
            static_cast<long long>(std::ceil(static_cast<double>(expected - bytes) / currentRate)));
        text += "  " + formatDuration(left) + " left";
    }
    return text;
}

void ProgressDisplay::clearLiveLine() {
    if (liveLineShown_) {
        std::fprintf(out_, "\r%*s\r", static_cast<int>(liveLineWidth_), "");
        liveLineShown_ = false;
    }
}

void ProgressDisplay::drawLiveLine() {
    const std::uint64_t expected = totalExpected();
    const std::uint64_t bytes = totalBytes();
    const std::size_t filled =
        expected == 0 ? kBarWidth
                      : static_cast<std::size_t>(static_cast<double>(bytes) * kBarWidth / expected);
    std::string line = "[" + std::string(std::min(filled, kBarWidth), '#') +
                       std::string(kBarWidth - std::min(filled, kBarWidth), '.') + "] " + summary();
    const std::size_t width = line.size();
    if (width < liveLineWidth_) {
        line.append(liveLineWidth_ - width, ' ');
    }
    std::fprintf(out_, "\r%s", line.c_str());
    std::fflush(out_);
    liveLineWidth_ = std::max(liveLineWidth_, width);
    liveLineShown_ = true;
}

void ProgressDisplay::tick(Clock::time_point now) {
    if (packs_.empty()) {
        return;
    }
    if (terminal_) {
        if (now - lastDraw_ >= kTerminalRedraw) {
            lastDraw_ = now;
            drawLiveLine();
        }
        return;
    }
    const std::uint64_t bytes = totalBytes();
    if (now - lastDraw_ >= plainInterval_ && bytes != lastPlainBytes_ && bytes < totalExpected()) {
        lastDraw_ = now;
        lastPlainBytes_ = bytes;
        std::fprintf(out_, "progress: %s\n", summary().c_str());
        std::fflush(out_);
    }
}

void ProgressDisplay::println(const std::string& line) {
    clearLiveLine();
    std::fprintf(out_, "%s\n", line.c_str());
    std::fflush(out_);
    if (terminal_ && !packs_.empty()) {
        drawLiveLine();
    }
}

void ProgressDisplay::close() {
    clearLiveLine();
    std::fflush(out_);
}

}  // namespace terrane::tool
