// What queues are made of: a list of items, and lanes beside it that keep items at hand for the
// threads that use them.
//
//   Queue_enq --> [added] --a run--> [list] --a run--> [next] --> Queue_deq, Blockq_deq
//                  lane                ^               lane
//                                      +-- Blockq_enq
//
// A queue that many threads use is slow because the lines of its lock and of its ends travel from
// core to core for every item. With lanes they travel once a run, which is up to kRun items that
// stay together. A thread uses the lane of its number, so lanes are shared only by more threads
// than there are lanes. Lanes are part of the queue and open to every thread under their locks:
// what is in a lane is not out of reach when its threads are busy, asleep or gone.
//
// The list is linked forward from the queue's own link through `forw`, and its last item is the
// `back` of that link. The first item of each run has the run's last item as its `back`, so that a
// run is taken out of the list without looking at the items in between. All runs but the first and
// the last have kRun items. Within a run that was added in a lane, `back` of the others is the item
// that comes kAhead items later, or NULL.
//
// Items lie wherever their users have put them, mostly out of the cache of the thread that takes
// them. Taking an item therefore brings those that come next into reach.
//
// Locks: a lane's word is taken before the critical section of the list. Nobody holds two lanes.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/word_lock.h"
#include "csect.h"
#include "thread_number.h"

namespace sysutil {

inline constexpr ULONG kRun = 128;
inline constexpr ULONG kAhead = sizeof(SYS_LANE::recent) / sizeof(LINK *);

inline SYS_LANE &own_lane(QUEUE &queue) {
    return queue.lanes[thread_number() % SYS_NUM_LANES];
}

// A lane's numbers are changed under its lock and looked at without.
inline ULONG peek(ULONG &number) {
    return std::atomic_ref<ULONG>(number).load(std::memory_order_relaxed);
}
inline void set(ULONG &number, ULONG value) {
    std::atomic_ref<ULONG>(number).store(value, std::memory_order_relaxed);
}

// Under the list's critical section: adds `num` items, linked through `forw`, at the tail. They are
// a run of their own if `whole_run`, else they join the last run as long as it has room.
void append(QUEUE &queue, LINK *first, LINK *last, ULONG num, bool whole_run);

// Under both locks: moves the first run, but no more than `limit` items of it, from the list to a
// lane that has no next item.
void move_run(QUEUE &queue, SYS_LANE &lane, ULONG limit);

// Has a lane for a few instructions, awake: hardly ever do two threads want it at a time.
class LaneGuard {
public:
    explicit LaneGuard(SYS_LANE &lane) : lane_(lane) { platform::take_awake(lane_.lock); }
    ~LaneGuard() { platform::release_awake(lane_.lock); }
    LaneGuard(const LaneGuard &) = delete;
    LaneGuard &operator=(const LaneGuard &) = delete;

private:
    SYS_LANE &lane_;
};

// The link of an item that will be taken, and what its user keeps behind it. NULL does no harm.
inline void bring_into_reach(const LINK *item) {
    const auto address = reinterpret_cast<std::uintptr_t>(item);
    __builtin_prefetch(reinterpret_cast<const void *>(address), 1);
    __builtin_prefetch(reinterpret_cast<const void *>(address + sizeof(LINK)), 1);
}

inline void set_free(LINK &item) {
    item.forw = nullptr;
    item.back = nullptr;
    item.qp = nullptr;
}

// Under the lane's lock, which has a next item.
inline LINK *take_next(SYS_LANE &lane) {
    LINK *item = lane.next;
    lane.next = item->forw;
    set(lane.num_next, lane.num_next - 1);
    bring_into_reach(item->forw);
    bring_into_reach(item->back);
    set_free(*item);
    return item;
}

// The next item of the calling thread's own lane, or NULL.
inline LINK *take_at_hand(SYS_LANE &lane) {
    const LaneGuard guard(lane);
    if (lane.num_next == 0)
        return nullptr;
    set(lane.num_taken, lane.num_taken + 1);
    return take_next(lane);
}

// One item that waits in a lane, whosever it is. NULL when there is none, or when something has
// come to the list meanwhile that may have to leave first.
LINK *take_from_lanes(QUEUE &queue);

} // namespace sysutil
