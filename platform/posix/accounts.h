// The accounts of live memory, one per tag. Callable from any thread at any time, also while a
// thread or the process ends; nothing fails.
#pragma once

#include <cstddef>

namespace sysutil {

inline constexpr unsigned int kMemTags = 256;

// Enters one block of `bytes` bytes under `tag`, which is below kMemTags.
void account_block(unsigned int tag, std::size_t bytes);

// Takes such a block out again; the calling thread need not be the one that entered it.
void account_release(unsigned int tag, std::size_t bytes);

} // namespace sysutil
