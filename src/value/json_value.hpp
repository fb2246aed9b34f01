#pragma once

#include <rapidjson/document.h>

#include "terrane/feature/value.hpp"

namespace terrane::common::json {

// Converts a parsed JSON value: null, bool; a number the parser marked as fitting std::uint64_t
// becomes unsigned, else one marked as fitting std::int64_t signed, else double; strings are
// copied; arrays keep their order; objects keep the first occurrence of a repeated name.
//
// Recursive. A value nested more deeply than ValueConverter::maxNestingDepth (which
// parseDocument never produces, but a hand-built DOM may) throws std::runtime_error rather than
// risking the stack. Callable from any thread; the result belongs to the caller.
feature::value toValue(const rapidjson::Value& json);

}  // namespace terrane::common::json
