// The calls that the module makes, numbered as they come, and made to fail by number.
//
// The linker's --wrap puts a fault point in front of every operation that can fail. Calls are
// numbered from 1 while points are armed, over all threads together. Beside that, a ledger notes
// what the module takes and must give back.
#pragma once

#include "storlib.h"

#include <string>
#include <vector>

namespace faults {

enum class Mode {
    refused,     // nothing is done, and the answer is an error
    reply_lost,  // it is done, and the answer is an error all the same
    host_1_dies, // it is done, and then a host of the store is gone
    host_2_dies,
    host_3_dies,
};
inline constexpr Mode all_modes[] = {Mode::refused, Mode::reply_lost, Mode::host_1_dies,
                                     Mode::host_2_dies, Mode::host_3_dies};

enum class Extent {
    once,
    operation, // this call and all later ones of the same operation
    all,       // this call and all later ones
};
inline constexpr Extent all_extents[] = {Extent::once, Extent::operation, Extent::all};

// Failing memory, threads and locks do nothing but refuse; the other modes number the calls of the
// store alone.
struct Point {
    unsigned int number;
    Mode mode = Mode::refused;
    Extent extent = Extent::once;
};

// "12:refused:once,15:host_2_dies:all" and back; an empty list for what is no such text.
std::string to_text(const std::vector<Point> &points);
std::vector<Point> to_points(const std::string &text);

// What happened while points were armed.
struct Seen {
    unsigned int num_calls = 0;       // that can be refused
    unsigned int num_store_calls = 0; // those of the store
    unsigned int num_fired = 0;
};

// A lock that is refused is not held: without mutual exclusion nobody counts exactly. Where several
// worker threads run, it is therefore taken all the same, and only the answer is an error.
void arm(const std::vector<Point> &points, bool one_worker);
Seen disarm();

// A handle of the application, which is no call of the module.
OMRALIB_HANDLE open_handle();

// What the module has taken and not given back; zero when nothing runs.
struct Ledger {
    int object_locks = 0; // whose tickets it has
    int mutexes = 0;
    int descriptors = 0; // not in their pools
};
Ledger ledger();

} // namespace faults
