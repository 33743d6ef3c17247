#include "lanes.h"

#include <algorithm>

namespace sysutil {

void append(QUEUE &queue, LINK *first, LINK *last, ULONG num, bool whole_run) {
    LINK &head = queue.link;
    const bool empty = queue.count == 0;
    last->forw = &head;
    if (!empty)
        head.back->forw = first;
    else
        head.forw = first;
    head.back = last;
    set(queue.count, queue.count + num);
    if (empty || whole_run || queue.num_last_run == kRun) {
        first->back = last;
        queue.last_run = first;
        queue.num_last_run = num;
        if (empty)
            queue.num_first_run = num;
        return;
    }
    first->back = nullptr;
    queue.last_run->back = last;
    queue.num_last_run += num;
    if (queue.last_run == head.forw)
        queue.num_first_run += num;
}

void move_run(QUEUE &queue, SYS_LANE &lane, ULONG limit) {
    LINK &head = queue.link;
    LINK *first = head.forw;
    LINK *last = first->back;
    const ULONG num_run = queue.num_first_run;
    const bool only_run = first == queue.last_run;
    const ULONG num = std::min(num_run, limit);
    if (num < num_run) {
        last = first;
        for (ULONG i = 1; i < num; ++i)
            last = last->forw;
        // What stays is a run still.
        LINK *rest = last->forw;
        rest->back = first->back;
        queue.num_first_run = num_run - num;
        if (only_run) {
            queue.last_run = rest;
            queue.num_last_run = num_run - num;
        }
    } else {
        const bool next_is_last = last->forw == queue.last_run;
        queue.num_first_run = next_is_last ? queue.num_last_run : kRun;
    }
    head.forw = last->forw;
    if (head.forw == &head)
        head.back = &head;
    set(queue.count, queue.count - num);
    ++queue.num_moves;
    lane.next = first;
    set(lane.num_next, num);
}

namespace {

// Under the lane's lock: the item that was added first.
LINK *take_added(SYS_LANE &lane) {
    LINK *item = lane.first_added;
    lane.first_added = item->forw;
    set(lane.num_added, lane.num_added - 1);
    set_free(*item);
    return item;
}

} // namespace

LINK *take_from_lanes(QUEUE &queue) {
    const unsigned int own = thread_number();
    for (unsigned int i = 0; i < SYS_NUM_LANES; ++i) {
        SYS_LANE &lane = queue.lanes[(own + i) % SYS_NUM_LANES];
        if (peek(lane.num_next) == 0 && peek(lane.num_added) == 0)
            continue;
        const LaneGuard guard(lane);
        if (lane.num_next != 0)
            return take_next(lane);
        // What is in the list by now may have been added here before.
        if (lane.num_added != 0 && peek(queue.count) == 0)
            return take_added(lane);
    }
    return nullptr;
}

} // namespace sysutil
