#include "terrane/util/rfc3339.hpp"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace terrane::common::util {
namespace {

constexpr std::array<std::int64_t, 12> daysBeforeMonth{0,   31,  59,  90,  120, 151,
                                                       181, 212, 243, 273, 304, 334};

// The day count below starts before the Unix epoch; these two constants move it there. They are
// part of the time stamp arithmetic that every reader of the files shares.
constexpr std::int64_t epochOffsetSeconds = 62'125'920'000;
constexpr std::int64_t epochOffsetDays = 477;

// Larger field values cannot be written in the field's width; sscanf yields them only for a
// field written with a minus sign, which wraps around in an unsigned conversion. Refusing them
// keeps the microsecond arithmetic far from overflow.
constexpr unsigned maximumYear = 9999;
constexpr unsigned maximumTwoDigits = 99;
constexpr double maximumSeconds = 1e9;

}  // namespace

optional<TimePoint> parseRFC3339(const char* text) {
    if (text == nullptr) {
        return nullopt;
    }
    unsigned year = 0;
    unsigned month = 0;
    unsigned day = 0;
    unsigned hour = 0;
    unsigned minute = 0;
    double seconds = 0;
    int consumed = 0;
    if (std::sscanf(text, "%4u-%2u-%2uT%2u:%2u:%lf%n", &year, &month, &day, &hour, &minute,
                    &seconds, &consumed) != 6) {
        return nullopt;
    }
    if (day < 1 || day > 31 || month < 1 || month > 12) {
        return nullopt;
    }
    if (year > maximumYear || hour > maximumTwoDigits || minute > maximumTwoDigits ||
        !std::isfinite(seconds) || std::fabs(seconds) > maximumSeconds) {
        return nullopt;
    }

    // Leap days are counted up to and including the year of the date for every month but
    // January; see the header for why February keeps that.
    const std::int64_t leapYear = static_cast<std::int64_t>(year) - (month == 1 ? 1 : 0);
    const std::int64_t days = (static_cast<std::int64_t>(day) - 1) +
                              static_cast<std::int64_t>(year) * 365 + daysBeforeMonth[month - 1] +
                              (leapYear / 4 - leapYear / 100 + leapYear / 400) - epochOffsetDays;
    const std::int64_t wholeSeconds =
        ((days * 24 + static_cast<std::int64_t>(hour)) * 60 + static_cast<std::int64_t>(minute)) *
            60 -
        epochOffsetSeconds;
    // The scanned seconds are scaled on their own and rounded to the microsecond: "1.001" is
    // 1.000999999... as a double, and truncating that would turn every such time stamp we wrote
    // into one a millisecond earlier. Below the microsecond the text is not meaningful.
    std::int64_t microseconds = wholeSeconds * 1'000'000 + std::llround(seconds * 1e6);

    const char* rest = text + consumed;
    if (*rest != 'Z') {
        char sign[2] = {};
        int offsetHours = 0;
        unsigned offsetMinutes = 0;
        if (std::sscanf(rest, "%1[+-]%2d:%2u", sign, &offsetHours, &offsetMinutes) != 3 ||
            offsetMinutes > maximumTwoDigits) {
            return nullopt;
        }
        const std::int64_t offset =
            (static_cast<std::int64_t>(offsetHours) * 60 + offsetMinutes) * 60'000'000;
        microseconds += sign[0] == '+' ? -offset : offset;
    }
    return TimePoint{
        std::chrono::floor<std::chrono::milliseconds>(std::chrono::microseconds{microseconds})};
}

std::string formatRFC3339(TimePoint time) {
    const auto sinceEpoch = time.time_since_epoch();
    const auto wholeSeconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    const std::time_t calendarTime = static_cast<std::time_t>(wholeSeconds.count());
    std::tm broken{};
    if (gmtime_r(&calendarTime, &broken) == nullptr) {
        return {};
    }
    std::array<char, 32> buffer{};
    const std::size_t length =
        std::strftime(buffer.data(), buffer.size(), "%Y-%m-%dT%H:%M:", &broken);
    if (length == 0) {
        return {};
    }
    // The seconds within the minute, including their fraction. Floor arithmetic keeps instants
    // before the epoch in 0-59.999 as well.
    const auto withinMinute = sinceEpoch - std::chrono::floor<std::chrono::minutes>(sinceEpoch);
    std::array<char, 16> secondsText{};
    std::snprintf(secondsText.data(), secondsText.size(), "%.3fZ",
                  static_cast<double>(withinMinute.count()) / 1000.0);
    std::string result(buffer.data(), length);
    result += secondsText.data();
    return result;
}

}  // namespace terrane::common::util
