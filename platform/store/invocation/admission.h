/* How many invocations run at once: the others wait their turn, first come first served.
 *
 * A place is taken by being made and given back by being destroyed. Whoever has to wait for a turn
 * waits at the mailbox of the invocation, where the deadline and a cancellation are heard as well;
 * a place that is given up while it waits holds up nobody. */
#pragma once

#include <cstdint>
#include <deque>

#include "invocation/mailroom.h"

namespace store {

class Admission {
public:
    class Place;

    /* `max_places` is at least 1. */
    Admission(Mailroom &mailroom, std::uint32_t max_places)
        : mailroom_(mailroom), max_places_(max_places) {}
    Admission(const Admission &) = delete;
    Admission &operator=(const Admission &) = delete;

private:
    void admit_next() ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);

    Mailroom &mailroom_;
    const std::uint32_t max_places_;

    Mutex lock_;                                         /* taken before that of the mailroom */
    std::deque<Place *> waiting_ ABSL_GUARDED_BY(lock_); /* the first has come first */
    std::uint32_t num_inside_ ABSL_GUARDED_BY(lock_) = 0;
};

class Admission::Place {
public:
    /* `box` is nudged when the turn comes. */
    Place(Admission &admission, Mailbox &box);
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;
    ~Place();

    bool is_admitted() const;

private:
    friend class Admission;

    Admission &admission_;
    Mailbox &box_;
    bool admitted_ ABSL_GUARDED_BY(admission_.lock_) = false;
};

} // namespace store
