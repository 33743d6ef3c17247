// The store that stands behind the interposer, and its objects as a test sees them: past the
// interposer, so that no policy has a say and nothing is logged.
#pragma once

#include "clocks.h"
#include "storlib.h"

#include <string>
#include <string_view>

namespace world {

struct Options {
    unsigned int num_hosts = 1;
    platform::Millis lock_lease = platform::millis_per_minute;
    platform::Millis lock_patience = 0; // a clock that stands would never end a wait
    bool deliver_inline = false;        // requests run on the thread that sends them
};

// Opens this process's store on this clock; neither is ever destroyed, since worker threads outlive
// main.
void open(TestClock &clock, const Options &options = {});

inline constexpr unsigned int app = 7;
OMRA_OBJKEY key(unsigned long long number, unsigned int app_id = app);

// Stores the object of `app` under this number, in the place of one that is there.
void put(unsigned long long number, std::string_view bytes);
void remove(unsigned long long number);
// The object's bytes, or "none".
std::string bytes(unsigned long long number);
// The number of objects of an app id.
unsigned long long count(unsigned int app_id = app);

// The calling thread's handle, which is no business of the module.
OMRALIB_HANDLE handle();

} // namespace world
