#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

/// FUZZ_CHECK(cond): a property every input must keep. A violation is reported with its place
/// and aborts, so that libFuzzer saves the input as a crash.
#define FUZZ_CHECK(cond)                                                                          \
    ((cond) ? (void)0                                                                             \
            : (std::fprintf(stderr, "%s:%d: property violated: %s\n", __FILE__, __LINE__, #cond), \
               std::abort()))
