#pragma once

#include <rapidjson/document.h>

#include <string>

namespace terrane::common::json {

// Writes a DOM value as compact JSON, exactly as rapidjson's Writer would through
// Value::Accept, but walking the tree with a heap-allocated stack instead of recursion, so a
// value of any depth is safe to write. Callable from any thread.
std::string writeCompact(const rapidjson::Value& json);

}  // namespace terrane::common::json
