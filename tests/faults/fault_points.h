// The calls that the module makes, numbered as they come, and made to fail by number: a policy of
// the interposer.
//
// Calls that can fail are numbered from 1 while points are armed, over all threads together.
#pragma once

#include "support/interposer.h"

#include <string>
#include <vector>

namespace faults {

enum class Mode : unsigned int {
    refused,    // nothing is done, and the answer is an error
    reply_lost, // it is done, and the answer is an error all the same; of the store's calls alone
};

enum class Extent : unsigned int {
    once,
    operation, // this call and all later ones of the same operation
    all,       // this call and all later ones
};

struct Point {
    unsigned int number; // of all calls, or for a lost reply of the store's
    Mode mode = Mode::refused;
    Extent extent = Extent::once;
};

// The three numbers of each point, as in "12 0 0 15 3 2", and back.
std::string to_text(const std::vector<Point> &points);
std::vector<Point> to_points(const std::string &text);

// A code that no table has, as if from a network underneath: the answer of the store's operations,
// where they have none of their own for a failure.
inline constexpr int connection_lost = -199;

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

// The operation that failed last on the calling thread since it asked last, or "".
std::string take_failed();

// The policy.
interposer::Verdict fail_by_number(const interposer::Call &call);

} // namespace faults
