#pragma once

// A failed property in a fuzz target stops the run at once, so that libFuzzer keeps the input
// as a crash and the replay test fails on it.

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #condition);  \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)
