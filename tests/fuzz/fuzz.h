// What the fuzz targets share: input taken apart piece by piece, and checks that end the process.
//
// A target is one function, LLVMFuzzerTestOneInput, that is called with millions of inputs in one
// process; what can be set up only once it sets up in LLVMFuzzerInitialize.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <fuzzer/FuzzedDataProvider.h>

namespace fuzz {

[[noreturn]] inline void fail(const char *what) {
    std::fprintf(stderr, "fuzz: %s\n", what);
    std::abort();
}

inline void check(bool condition, const char *what) {
    if (!condition) {
        fail(what);
    }
}

// Reads every byte, so that a block that is shorter than was said is found.
inline void touch(const void *pbytes, std::size_t len) {
    volatile unsigned char sum = 0;
    for (std::size_t i = 0; i < len; ++i) {
        sum = static_cast<unsigned char>(sum + static_cast<const unsigned char *>(pbytes)[i]);
    }
}

} // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pdata, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int *pargc, char ***pargv);
