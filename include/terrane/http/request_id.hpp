#pragma once

#include <cstdint>

#include "terrane/export.hpp"

namespace terrane::common {

// Draws the id of a new request or download. Every HttpServiceInterface implementation takes its
// ids from here: one counter for the whole process and for both kinds lets cancelRequest accept
// either kind, and keeps ids unique even when an application swaps services. The first id is 1 and
// ids are never reused, so 0 can stand for "no request". Callable from any thread.
TERRANE_EXPORT std::uint64_t nextHttpRequestId() noexcept;

}  // namespace terrane::common
