// What queues are made of: a list of items, and lanes beside it that keep items at hand for the
// threads that use them.
//
//   Queue_enq   --> [added] --a run--> [list] --a run--> [next] --> Queue_deq
//   Blockq_enq       lane                                 lane      Blockq_deq
//
// A queue that many threads use is slow because the lines of its lock and of its ends travel from
// core to core for every item. With lanes they travel once a run, which is up to kRun items that
// stay together. A thread uses the lane of its number, so lanes are shared only by more threads
// than there are lanes. Lanes are part of the queue and open to every thread under their locks:
// what is in a lane is not out of reach when its threads are busy, asleep or gone.
//
// The list is linked forward from the queue's own link through `forw`, and its last item is the
// `back` of that link. The first item of each run has the run's last item as its `back`, so that a
// run is taken out of the list without looking at the items in between. All runs but the first have
// kRun items: fewer come to an empty list only. `back` of the others is the item that comes kAhead
// items later, or NULL.
//
// Items lie wherever their users have put them, mostly out of the cache of the thread that takes
// them. Taking an item therefore brings those that come next into reach.
//
// Locks: a lane's lock is taken before the critical section of the list. Nobody holds two lanes.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <new>
#include <type_traits>

#include "common/thread_safety.h"
#include "common/word_lock.h"
#include "csect.h"
#include "thread_number.h"

namespace sysutil {

inline constexpr ULONG kRun = 256;
inline constexpr ULONG kAhead = 8;
inline constexpr ULONG kNumLanes = 16;

// A number that is changed under a lock and looked at without, too.
class SharedNumber {
public:
    operator ULONG() const { return value_.load(std::memory_order_relaxed); }
    void operator=(ULONG value) { value_.store(value, std::memory_order_relaxed); }

    // Of two threads that each announce one number and then look at the other's, one at least sees
    // what the other has announced.
    void announce(ULONG value) { value_.store(value, std::memory_order_seq_cst); }
    ULONG look() const { return value_.load(std::memory_order_seq_cst); }

private:
    std::atomic<ULONG> value_{0};
};

// The items at hand for a part of the threads. Hardly ever do two threads want one at a time.
struct alignas(SYS_CACHE_LINE) Lane {
    platform::AwakeLock lock; // held for a few instructions
    SharedNumber num_next;    // items to be taken next
    SharedNumber num_added;   // items that were added here and are not in the list yet
    SharedNumber num_taken;   // by the lane's own threads, ever
    LINK *next ABSL_GUARDED_BY(lock) = nullptr;
    LINK *first_added ABSL_GUARDED_BY(lock) = nullptr;
    LINK *last_added ABSL_GUARDED_BY(lock) = nullptr;
    ULONG run_limit ABSL_GUARDED_BY(lock) = 0; // items that the next run may have
    ULONG num_taken_seen ABSL_GUARDED_BY(lock) = 0;
    ULONGLONG run_began_ns ABSL_GUARDED_BY(lock) = 0;
    std::array<LINK *, kAhead> recent ABSL_GUARDED_BY(lock){}; // the items added last
    ULONGLONG num_ever_added ABSL_GUARDED_BY(lock) = 0;
};

static_assert(sizeof(Lane) % SYS_CACHE_LINE == 0, "no two lanes meet in a cache line");

// What a QUEUE keeps beside the fields that its contract names. Of those, `link` and `count` are
// the list, guarded by csect.
struct Machinery {
    explicit Machinery(QUEUE &queue) : record(queue) {}

    QUEUE &record; // in which this stands
    Csect csect;
    ULONG num_first_run ABSL_GUARDED_BY(csect) = 0;
    ULONG num_moves ABSL_GUARDED_BY(csect) = 0;
    SharedNumber lane_to_check;
    // Of a blocking queue.
    SharedNumber num_sleepers; // changed under csect
    bool waking ABSL_GUARDED_BY(csect) = false;
    std::array<Lane, kNumLanes> lanes;

    Lane &own_lane() { return lanes[thread_number() % kNumLanes]; }

    // The items in the list, looked at without a lock.
    ULONG peek_count() const {
        return std::atomic_ref<ULONG>(record.count).load(std::memory_order_relaxed);
    }

    // Moves what was added in a lane, kRun items unless the list is empty, to the tail of the list.
    void append_added(Lane &lane) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lane.lock, csect);

    // Moves the first run, but no more than `limit` items of it, from the list to a lane that has
    // no next item.
    void move_run(Lane &lane, ULONG limit) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lane.lock, csect);

    // One item that waits in a lane, whosever it is. NULL when there is none, or when something has
    // come to the list meanwhile that may have to leave first.
    LINK *take_from_lanes();

private:
    void set_count(ULONG count) ABSL_EXCLUSIVE_LOCKS_REQUIRED(csect) {
        std::atomic_ref<ULONG>(record.count).store(count, std::memory_order_relaxed);
    }
};

static_assert(sizeof(Machinery) == sizeof(QUEUE::machinery) && alignof(Machinery) <= alignof(QUEUE),
              "the contract's array has just the room");
static_assert(std::is_trivially_destructible_v<Machinery>, "a queue has no end");

inline Machinery &machinery_of(QUEUE &queue) {
    return *std::launder(reinterpret_cast<Machinery *>(queue.machinery));
}

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

// Puts an item with those that were added in the lane; how many they are now.
inline ULONG add(Lane &lane, LINK &item) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lane.lock) {
    item.forw = nullptr;
    item.back = nullptr;
    const ULONG num_added = lane.num_added;
    LINK *&recent = lane.recent[lane.num_ever_added++ % kAhead];
    if (num_added >= kAhead)
        recent->back = &item;
    recent = &item;
    if (num_added == 0) {
        lane.first_added = &item;
        lane.num_added.announce(1);
    } else {
        lane.last_added->forw = &item;
        lane.num_added = num_added + 1;
    }
    lane.last_added = &item;
    return num_added + 1;
}

// From a lane that has a next item.
inline LINK *take_next(Lane &lane) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lane.lock) {
    LINK *item = lane.next;
    lane.next = item->forw;
    lane.num_next = lane.num_next - 1;
    bring_into_reach(item->forw);
    bring_into_reach(item->back);
    set_free(*item);
    return item;
}

// The item that was added first, from a lane that has one.
inline LINK *take_added(Lane &lane) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lane.lock) {
    LINK *item = lane.first_added;
    lane.first_added = item->forw;
    lane.num_added = lane.num_added - 1;
    set_free(*item);
    return item;
}

// The next item of the calling thread's own lane, or NULL.
inline LINK *take_at_hand(Lane &lane) {
    const platform::Guard guard(lane.lock);
    if (lane.num_next == 0) [[unlikely]]
        return nullptr;
    lane.num_taken = lane.num_taken + 1;
    return take_next(lane);
}

} // namespace sysutil
