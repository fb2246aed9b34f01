#pragma once

#include <expected>
#include <optional>

namespace terrane::common {

// Every fallible result that crosses a subsystem boundary is a value or an error, never an
// exception.
// Using-declarations rather than alias templates, so that class template argument deduction
// (`return unexpected(message);`) works with every compiler.
using std::expected;
using std::nullopt;
using std::optional;
using std::unexpected;

}  // namespace terrane::common
