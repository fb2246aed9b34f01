#include "text_format.hpp"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <sstream>

namespace terrane::tool {

namespace {

std::string printf1(const char* format, double value, const char* unit) {
    std::array<char, 64> buffer{};
    std::snprintf(buffer.data(), buffer.size(), format, value, unit);
    return buffer.data();
}

// Splits a millisecond instant into a broken-down UTC time and the milliseconds; false when the
// C library cannot represent the year.
bool toUtc(common::OfflineDataTimePoint time, std::tm& out, int& milliseconds) {
    const auto sinceEpoch = time.time_since_epoch().count();
    auto seconds = sinceEpoch / 1000;
    auto millis = sinceEpoch % 1000;
    if (millis < 0) {
        millis += 1000;
        seconds -= 1;
    }
    const std::time_t whole = static_cast<std::time_t>(seconds);
    milliseconds = static_cast<int>(millis);
    return gmtime_r(&whole, &out) != nullptr;
}

}  // namespace

std::string formatBytes(std::uint64_t bytes) {
    static constexpr std::array<const char*, 4> units{"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return std::to_string(bytes) + " B";
    }
    double value = static_cast<double>(bytes) / 1024.0;
    std::size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < units.size()) {
        value /= 1024.0;
        ++unit;
    }
    return printf1(unit >= 2 ? "%.2f %s" : "%.1f %s", value, units[unit]);
}

std::string formatRate(double bytesPerSecond) {
    if (!(bytesPerSecond >= 0.0)) {
        bytesPerSecond = 0.0;
    }
    return formatBytes(static_cast<std::uint64_t>(bytesPerSecond)) + "/s";
}

std::string formatDuration(std::chrono::seconds duration) {
    const auto total = duration.count() < 0 ? 0 : duration.count();
    std::array<char, 48> buffer{};
    if (total < 60) {
        std::snprintf(buffer.data(), buffer.size(), "%llds", static_cast<long long>(total));
    } else if (total < 3600) {
        std::snprintf(buffer.data(), buffer.size(), "%lldm%02llds",
                      static_cast<long long>(total / 60), static_cast<long long>(total % 60));
    } else {
        std::snprintf(buffer.data(), buffer.size(), "%lldh%02lldm",
                      static_cast<long long>(total / 3600),
                      static_cast<long long>(total % 3600 / 60));
    }
    return buffer.data();
}

std::string formatTime(common::OfflineDataTimePoint time) {
    std::tm utc{};
    int milliseconds = 0;
    if (!toUtc(time, utc, milliseconds)) {
        return "?";
    }
    std::array<char, 64> buffer{};
    std::strftime(buffer.data(), buffer.size(), "%Y-%m-%d %H:%M:%S UTC", &utc);
    return buffer.data();
}

std::string formatTimestamp(common::OfflineDataTimePoint time) {
    std::tm utc{};
    int milliseconds = 0;
    if (!toUtc(time, utc, milliseconds)) {
        return "";
    }
    std::array<char, 64> buffer{};
    const auto length = std::strftime(buffer.data(), buffer.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(buffer.data() + length, buffer.size() - length, ".%03dZ", milliseconds);
    return buffer.data();
}

std::string statusName(common::OfflineDataPackStatus status) {
    using common::OfflineDataPackStatus;
    switch (status) {
        case OfflineDataPackStatus::Pending:
            return "Pending";
        case OfflineDataPackStatus::Downloading:
            return "Downloading";
        case OfflineDataPackStatus::Incomplete:
            return "Incomplete";
        case OfflineDataPackStatus::Verifying:
            return "Verifying";
        case OfflineDataPackStatus::Available:
            return "Available";
        case OfflineDataPackStatus::Expired:
            return "Expired";
        case OfflineDataPackStatus::Errored:
            return "Errored";
        case OfflineDataPackStatus::Deleting:
            return "Deleting";
        case OfflineDataPackStatus::Deleted:
            return "Deleted";
    }
    return "Unknown";
}

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
        std::array<char, 8> escape{};
        if (byte == '\n' || byte == '\r' || byte == '\t') {
            out += byte == '\n' ? "\\n" : byte == '\r' ? "\\r" : "\\t";
        } else if (byte < 0x20 || byte == 0x7f) {
            std::snprintf(escape.data(), escape.size(), "\\x%02x", byte);
            out += escape.data();
        } else if (byte == 0xc2 && next >= 0x80 && next <= 0x9f) {
            std::snprintf(escape.data(), escape.size(), "\\u%04x", next);
            out += escape.data();
            ++i;
        } else {
            out += static_cast<char>(byte);
        }
    }
    return out;
}

std::string describeError(const common::OfflineDataError& error) {
    std::ostringstream out;
    out << error.code;
    if (!error.message.empty()) {
        out << ": " << printable(error.message);
    }
    return out.str();
}

}  // namespace terrane::tool
