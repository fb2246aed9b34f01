#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <terrane/offline/offline_data.hpp>

// Human-readable forms of sizes, durations and instants, shared by every command's output.
// Pure functions; any thread.

namespace terrane::tool {

// "512 B", "1.5 KiB", "3.0 MiB", "1.20 GiB".
std::string formatBytes(std::uint64_t bytes);

// A transfer rate: formatBytes of the bytes per second followed by "/s".
std::string formatRate(double bytesPerSecond);

// "4s", "1m05s", "2h03m".
std::string formatDuration(std::chrono::seconds duration);

// "2024-05-01 12:00:00 UTC": for people.
std::string formatTime(common::OfflineDataTimePoint time);

// "2024-05-01T12:00:00.000Z": for machines and for the catalogue files we write.
std::string formatTimestamp(common::OfflineDataTimePoint time);

// "Pending", "Available", ...
std::string statusName(common::OfflineDataPackStatus status);

// The text with every control character (C0, DEL, and C1 in UTF-8) written as an escape ("\x1b",
// "\r", "\u0085"), so that a string from a server can neither move the cursor nor forge lines.
std::string printable(std::string_view text);

// "Corrupt: Failed to verify checksum".
std::string describeError(const common::OfflineDataError& error);

}  // namespace terrane::tool
