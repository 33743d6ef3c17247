// The list of a queue by runs, and what others take out of a lane; see lanes.h.
#include "lanes.h"

#include <algorithm>

namespace sysutil {

void Machinery::append_added(Lane &lane) {
    LINK &head = record.link;
    LINK *first = lane.first_added;
    LINK *last = lane.last_added;
    const ULONG num = lane.num_added;
    if (record.count == 0) {
        head.forw = first;
        num_first_run = num;
    } else {
        head.back->forw = first;
    }
    head.back = last;
    last->forw = &head;
    first->back = last;
    set_count(record.count + num);
    ++num_moves;
    lane.num_added = 0;
}

void Machinery::move_run(Lane &lane, ULONG limit) {
    LINK &head = record.link;
    LINK *first = head.forw;
    LINK *last = first->back;
    const ULONG num_run = num_first_run;
    const ULONG num = std::min(num_run, limit);
    if (num < num_run) {
        last = first;
        for (ULONG i = 1; i < num; ++i)
            last = last->forw;
        // What stays is a run still.
        LINK *rest = last->forw;
        rest->back = first->back;
        num_first_run = num_run - num;
    } else {
        num_first_run = kRun;
    }
    head.forw = last->forw;
    if (head.forw == &head)
        head.back = &head;
    set_count(record.count - num);
    ++num_moves;
    lane.next = first;
    lane.num_next = num;
}

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
