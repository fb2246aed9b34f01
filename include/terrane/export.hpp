#pragma once

// The library is built with hidden visibility; only what carries TERRANE_EXPORT is part of the
// shared library's interface.
#if defined(__GNUC__)
#define TERRANE_EXPORT __attribute__((visibility("default")))
#else
#define TERRANE_EXPORT
#endif
