// Threads played by fibers of one thread, of which one runs at a time, so that a seed decides every
// order of events and brings it back.
//
// A fiber gives way at its scheduling points only: in front of a call of a library, and where it
// waits. Who goes on is decided in one of two ways, as the seed has it. Priorities: each fiber has
// a random one, the highest that can go on does, and at a few random points the running one drops
// to the lowest; this finds an error that takes few ordering constraints with a probability that
// does not shrink with the length of the run. Or a walk: anyone, at every point.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace schedules {

// Runs these to their end beside the fibers that are there already, and goes on until nobody can.
// Answers false when one of them never ends. `num_steps` is how many points a run has, roughly:
// dropping happens before.
bool run(std::uint64_t seed, const std::vector<std::function<void()>> &bodies,
         unsigned int num_steps = 300);

// A fiber that outlives the run; it starts when the scheduler lets it. Answers its number, from 1.
unsigned long start(std::function<void()> body);

// The following do nothing, and `condition` must hold, where no fiber runs.

// A scheduling point.
void point();
// Goes on when `condition` holds; when it is found to hold, this fiber is the next to run.
void wait_until(const std::function<bool()> &condition);
// Ends the running fiber.
void end();

// Of the running fiber; 0 where none runs.
unsigned long current();
void *&datap();

// Has every call of the module made under the scheduler, in this process from now on; with a
// script, as the interposer's says.
void schedule_calls(bool follows_script = false);

} // namespace schedules
