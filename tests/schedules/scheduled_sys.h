// The system utilities, with their threads, queues and locks in the hands of the scheduler.
#pragma once

namespace schedules {

// What a test may break on purpose, to see that the search finds it.
struct Planted {
    bool open_mutexes = false; // entering one excludes nobody
    bool open_process_cs = false;
};
extern Planted planted;

// The next call under this memory tag, or the next Thread_fork, fails; 0 and false: none.
struct Failures {
    unsigned int malloc_tag = 0;
    bool thread_fork = false;
};
extern Failures failures;

// How many threads were started.
unsigned int num_forks();

} // namespace schedules
