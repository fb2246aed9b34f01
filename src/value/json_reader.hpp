#pragma once

#include <rapidjson/document.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "terrane/expected.hpp"

namespace terrane::common::json {

// "Parse error at offset <offset>: <rapidjson's English message for code>", or "Unknown error."
// as the message for a code outside rapidjson's table (0 included, since it is not an error).
std::string parseErrorMessage(unsigned code, std::size_t offset);

// Parses the whole of text into document with rapidjson's default, strict flags, refusing
// arrays and objects nested more deeply than ValueConverter::maxNestingDepth. The bound keeps
// rapidjson's recursive descent, and every recursive walk over the result, within a small
// stack. On failure the error is in the parseErrorMessage form and document holds null.
//
// An embedded NUL byte ends rapidjson's view of the text; anything after it other than the end
// of the string is reported as a second root value, so that the whole string is always judged.
//
// A pure function: callable from any thread; document belongs to the caller.
expected<void, std::string> parseDocument(std::string_view text, rapidjson::Document& document);

}  // namespace terrane::common::json
