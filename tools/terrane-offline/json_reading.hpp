#pragma once

#include <cstdint>
#include <string>
#include <terrane/expected.hpp>
#include <terrane/feature/value.hpp>

// Reading JSON files into the library's value type, and picking members out of it. Pure
// functions; any thread.

namespace terrane::tool {

using JsonObject = feature::value::object_type;

// The file's whole contents; the error names the path and the system's reason.
common::expected<std::string, std::string> readWholeFile(const std::string& path);

// The file parsed as JSON; the error names the path and what is wrong.
common::expected<feature::value, std::string> readJsonFile(const std::string& path);

// The member, when the object has one of that type.
const feature::value* member(const JsonObject& object, const std::string& name);
const std::string* stringMember(const JsonObject& object, const std::string& name);
const JsonObject* objectMember(const JsonObject& object, const std::string& name);
common::optional<std::uint64_t> unsignedMember(const JsonObject& object, const std::string& name);

}  // namespace terrane::tool
