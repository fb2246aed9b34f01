#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>

// A broken property of the code under test ends the run with a message libFuzzer keeps beside
// the input that found it.
inline void fuzzCheck(bool condition, const char* fuzzer, const char* what, std::size_t size) {
    if (!condition) {
        std::fprintf(stderr, "%s: %s (input of %zu bytes)\n", fuzzer, what, size);
        std::abort();
    }
}
