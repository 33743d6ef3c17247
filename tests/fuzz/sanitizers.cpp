// How the sanitizers of the fuzz targets are set: a block that is too large to be had is NULL, as
// outside a sanitizer, and what a target still holds at its end is no leak.

// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the sanitizer's
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=256:detect_leaks=0:malloc_context_"
           "size=8:"
           "detect_stack_use_after_return=1";
}
