#pragma once

#include <cstddef>
#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/feature/value.hpp"

namespace terrane::common {

// Converts between JSON text and terrane::feature::value.
//
// Both operations are pure functions of their arguments: any thread may call them at any time,
// concurrently. The caller owns the argument and receives sole ownership of the result.
class TERRANE_EXPORT ValueConverter {
  public:
    // Arrays and objects nested more deeply than this are refused while parsing. Both the
    // parser and the value's destructor recurse once per level, so without a bound a hostile
    // document of a few hundred kilobytes ("[[[[...") could exhaust the stack.
    static constexpr std::size_t maxNestingDepth = 512;

    // Parses strict JSON (no comments, trailing commas or NaN literals; one value, nothing but
    // whitespace after it). Non-negative integers become std::uint64_t, negative integers that
    // fit become std::int64_t, every other number a double; when an object names a member
    // twice the first occurrence wins.
    //
    // On failure the error reads "Parse error at offset N: <reason>", N being the byte offset
    // where parsing stopped. A document nested more deeply than maxNestingDepth fails at the
    // bracket that opens the first level too many, with the reason "The document is nested
    // more deeply than 512 levels.". Never throws for bad input.
    static expected<feature::value, std::string> fromJson(const std::string& json);

    // Writes compact JSON (no whitespace). Object members come out in the map's iteration
    // order. A NaN or infinite double writes nothing at all, so a top-level NaN yields "" and
    // one inside a container leaves a gap ("[1,,2]"). Walks the value without recursion, so
    // any depth that the caller managed to build is written.
    static std::string toJson(const feature::value& value);
};

}  // namespace terrane::common
