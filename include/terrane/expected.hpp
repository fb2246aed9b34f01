#pragma once

#include <expected>
#include <optional>

namespace terrane::common {

// Every fallible result that crosses a subsystem boundary is a value or an error, never an
// exception.
template <typename T, typename E>
using expected = std::expected<T, E>;

template <typename E>
using unexpected = std::unexpected<E>;

template <typename T>
using optional = std::optional<T>;

using std::nullopt;

}  // namespace terrane::common
