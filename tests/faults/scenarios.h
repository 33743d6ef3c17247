// What the fault points are swept over: a store of 3 hosts with a few objects, a module that works
// for it, and the ways of using both. A scenario runs in a process of its own.
#pragma once

#include "fault_points.h"

#include <string>
#include <vector>

namespace scenarios {

struct Scenario {
    const char *name;
    bool starts_up; // the module's set-up is a part of it, so that points are armed before
    void (*run)();  // while points are armed
};

extern const std::vector<Scenario> all;

// Runs the scenario with these points armed, then checks that the module has kept nothing and works
// as if nothing had happened. What is wrong goes to `complaint_out`; `stage_out` says what is going
// on, for whoever finds the process hanging.
faults::Seen run(const Scenario &scenario, unsigned int num_workers,
                 const std::vector<faults::Point> &points, std::string &complaint_out,
                 const char *&stage_out);

} // namespace scenarios
