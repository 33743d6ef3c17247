/* The words that both sides of the seam use. */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "common/alarm.h"
#include "common/clock.h"
#include "common/thread_safety.h"
#include "common/word_lock.h"
#include "engine/contracts.h"

namespace store {

using platform::Alarm;
using platform::Clock;
using platform::Guard;
using platform::Millis;
using platform::millis_per_minute;
using platform::millis_per_second;
using platform::Mutex;
using platform::MutexLock;
using platform::never;
using platform::SystemClock;
using platform::WordLock;

using Status = int; /* OMRALIB_RET_SUCCESS or a negative code of storlib.h */

/* Whom a handle that was opened with it stands for. */
using Guid = std::array<char, OMRALIB_GUID_LEN>;

using Bytes = std::span<const std::byte>;

/* The longest exceptions object: whole records of 48 bytes, as many as an object can hold. */
inline constexpr std::size_t max_exceptions_bytes = UINT32_MAX / 48 * 48;

} // namespace store
