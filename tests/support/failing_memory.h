// Memory that runs out when a test wants: the operators new of a program that has
// failing_memory.cpp fail by number, where a thread is exposed to that.
#pragma once

#include <utility>

namespace failing_memory {

inline constinit thread_local bool is_exposed = false;

// Whether arming does anything: libraries that are not ours do not outlive it.
inline constinit bool is_allowed = true;

// While it lives the thread is exposed, or is not.
class Exposure {
public:
    explicit Exposure(bool exposed) : before_(std::exchange(is_exposed, exposed)) {}
    Exposure(const Exposure &) = delete;
    Exposure &operator=(const Exposure &) = delete;
    ~Exposure() { is_exposed = before_; }

private:
    const bool before_;
};

// From now on the exposed allocation with this number fails, counted from 1 over all threads, or
// that and all later ones. 0: none.
void arm(unsigned int number, bool all_later);

// None fails any more. Answers how many have.
unsigned int disarm();

// Blocks that are allocated now, by anyone.
long num_blocks();

} // namespace failing_memory
