// What the fuzz targets share: checks that end the process, and the draws that both make. Each is
// one source.
//
// A target is one function, LLVMFuzzerTestOneInput, that is called with millions of inputs in one
// process; what can be set up only once it sets up in LLVMFuzzerInitialize.
#pragma once

#include <cstdio>
#include <cstdlib>

#include <fuzzer/FuzzedDataProvider.h>

inline void check(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "fuzz: %s\n", what);
        std::abort();
    }
}

inline FuzzedDataProvider *pinput; // of the run

inline bool happens(int once_in) {
    return pinput->ConsumeIntegralInRange(1, once_in) == 2; // not where the input is used up
}

// Overwrites some places of a record, or none.
inline void overwrite(void *precord, std::size_t len) {
    while (len != 0 && pinput->ConsumeBool()) {
        const auto begin = pinput->ConsumeIntegralInRange<std::size_t>(0, len - 1);
        const auto most = pinput->ConsumeIntegralInRange<std::size_t>(1, len - begin);
        pinput->ConsumeData(static_cast<char *>(precord) + begin, most);
    }
}

// A block that is too large to be had is NULL, as outside a sanitizer, and what a target still
// holds at its end is no leak.
// NOLINTNEXTLINE(bugprone-reserved-identifier,misc-definitions-in-headers): the sanitizer's
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=256:detect_leaks=0:"
           "malloc_context_size=8:detect_stack_use_after_return=1";
}
