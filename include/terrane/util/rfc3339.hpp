#pragma once

#include <chrono>
#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"

namespace terrane::common::util {

// A UTC instant with millisecond resolution: the precision of the offline records' time stamps.
using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::milliseconds>;

// Reads an RFC 3339 time stamp of the form "YYYY-MM-DDTHH:MM:SS[.fraction]" followed by "Z" or
// an offset "+HH:MM"/"-HH:MM". No value when a field is missing, the month is outside 1-12, the
// day outside 1-31, the seconds are not a finite number of reasonable size, the zone is a lower
// case "z" or the offset is malformed, and when a date or time field carries a minus sign.
// Hours, minutes and seconds are not range-checked otherwise: "T25:00:00Z" is the next day.
//
// Compatibility: every reader of this library's files counts leap days up to the end of February
// already in February, so an instant in February of a leap year reads one day later than its
// calendar date. This is kept on purpose: changing it would move the time stamps that other
// implementations write and read back. The seconds are taken to the microsecond, and what lies
// below a millisecond is then cut off.
//
// Reentrant; callable from any thread. `text` may be null (no value).
TERRANE_EXPORT optional<TimePoint> parseRFC3339(const char* text);

// Writes `time` in UTC as "YYYY-MM-DDTHH:MM:" followed by the seconds with three decimals and
// "Z". The seconds are not zero-padded ("2021-03-04T05:06:5.250Z"); that is the shape the
// existing files have, and parseRFC3339 reads it back. Returns an empty string only for an
// instant whose year the C library cannot represent.
//
// Reentrant; callable from any thread.
TERRANE_EXPORT std::string formatRFC3339(TimePoint time);

}  // namespace terrane::common::util
