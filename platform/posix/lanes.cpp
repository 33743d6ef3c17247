// The list of a queue by runs, and what others take out of a lane; see lanes.h.
#include "lanes.h"

#include <algorithm>

namespace sysutil {

void Machinery::append(LINK *first, LINK *last, ULONG num, bool whole_run) {
    LINK &head = record.link;
    const bool empty = record.count == 0;
    last->forw = &head;
    if (!empty)
        head.back->forw = first;
    else
        head.forw = first;
    head.back = last;
    set_count(record.count + num);
    if (empty || whole_run || num_last_run == kRun) {
        first->back = last;
        last_run = first;
        num_last_run = num;
        if (empty)
            num_first_run = num;
        return;
    }
    first->back = nullptr;
    last_run->back = last;
    num_last_run += num;
    if (last_run == head.forw)
        num_first_run += num;
}

void Machinery::move_run(Lane &lane, ULONG limit) {
    LINK &head = record.link;
    LINK *first = head.forw;
    LINK *last = first->back;
    const ULONG num_run = num_first_run;
    const bool only_run = first == last_run;
    const ULONG num = std::min(num_run, limit);
    if (num < num_run) {
        last = first;
        for (ULONG i = 1; i < num; ++i)
            last = last->forw;
        // What stays is a run still.
        LINK *rest = last->forw;
        rest->back = first->back;
        num_first_run = num_run - num;
        if (only_run) {
            last_run = rest;
            num_last_run = num_run - num;
        }
    } else {
        const bool next_is_last = last->forw == last_run;
        num_first_run = next_is_last ? num_last_run : kRun;
    }
    head.forw = last->forw;
    if (head.forw == &head)
        head.back = &head;
    set_count(record.count - num);
    ++num_moves;
    lane.next = first;
    lane.num_next = num;
}

namespace {

// The item that was added first.
LINK *take_added(Lane &lane) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lane.lock) {
    LINK *item = lane.first_added;
    lane.first_added = item->forw;
    lane.num_added = lane.num_added - 1;
    set_free(*item);
    return item;
}

} // namespace

LINK *Machinery::take_from_lanes() {
    const unsigned int own = thread_number();
    for (unsigned int i = 0; i < kNumLanes; ++i) {
        Lane &lane = lanes[(own + i) % kNumLanes];
        if (lane.num_next == 0 && lane.num_added == 0)
            continue;
        const platform::Guard guard(lane.lock);
        if (lane.num_next != 0)
            return take_next(lane);
        // What is in the list by now may have been added here before.
        if (lane.num_added != 0 && peek_count() == 0)
            return take_added(lane);
    }
    return nullptr;
}

} // namespace sysutil
