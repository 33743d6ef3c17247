// Links and queues: Link_*, Queue_* and Sys_get_queue_count. Blocking queues are in blockq.cpp.
//
// In call order: Link_init for every item, Queue_init, then _enq and _deq by any thread. An item
// that is added waits in the lane of its thread until kRun of them go to the list together; whoever
// takes an item takes it from his lane, which gets the next run from the list, or else from any
// lane that has one. See lanes.h.
//
// A queue is empty when neither the list nor a lane has an item. Runs may move between them while
// they are looked through one after the other, so a search that found nothing counts only if no run
// has moved meanwhile.
//
// Items belong to their users: a queue neither allocates nor releases them.
#include "check.h"
#include "lanes.h"

using namespace sysutil;

namespace {

constexpr ULONG kLinkCode = 0x4C494E4B;

// Fetches a run from the list into the lane, unless one is there by now, and takes its first item.
// NULL when the list is empty. `num_moves` tells the runs that have moved so far.
LINK *fetch(Machinery &queue, Lane &lane, ULONG &num_moves) {
    const platform::Guard lane_guard(lane.lock);
    if (lane.num_next == 0) {
        const platform::Guard guard(queue.csect);
        if (queue.record.count != 0)
            queue.move_run(lane, kRun);
        num_moves = queue.num_moves;
    }
    return lane.num_next != 0 ? take_next(lane) : nullptr;
}

bool runs_have_moved(Machinery &queue, ULONG num_moves) {
    const platform::Guard guard(queue.csect);
    return queue.num_moves != num_moves;
}

// An item that is not at hand, or NULL when there is none at all.
[[gnu::noinline]] LINK *look_around(Machinery &queue, Lane &lane) {
    for (;;) {
        ULONG num_moves = 0;
        if (LINK *item = fetch(queue, lane, num_moves))
            return item;
        if (LINK *item = queue.take_from_lanes())
            return item;
        if (!runs_have_moved(queue, num_moves))
            return nullptr;
    }
}

} // namespace

void Link_init(LINK *plink) {
    *plink = LINK{};
    plink->code = kLinkCode;
}

BOOLEAN Link_inuse(LINK *plink) {
    return plink->qp != nullptr ? TRUE : FALSE;
}

void Queue_init(QUEUE *pq, unsigned int id) {
    Link_init(&pq->link);
    pq->link.forw = &pq->link;
    pq->link.back = &pq->link;
    pq->link.qp = &pq->link;
    pq->id = id;
    pq->count = 0;
    pq->csp = &(new (pq->machinery) Machinery(*pq))->csect;
}

void Queue_enq(QUEUE *pq, LINK *plink) {
    if (!SYS_CHECK(!Link_inuse(plink)))
        return;
    plink->qp = &pq->link;
    Machinery &queue = machinery_of(*pq);
    Lane &lane = queue.own_lane();
    const platform::Guard lane_guard(lane.lock);
    if (add(lane, *plink) < kRun)
        return;
    const platform::Guard guard(queue.csect);
    queue.append_added(lane);
}

LINK *Queue_deq(QUEUE *pq) {
    Machinery &queue = machinery_of(*pq);
    Lane &lane = queue.own_lane();
    if (LINK *item = take_at_hand(lane)) [[likely]]
        return item;
    return look_around(queue, lane);
}

size_t Sys_get_queue_count(QUEUE *pq) {
    Machinery &queue = machinery_of(*pq);
    size_t count = 0;
    for (Lane &lane : queue.lanes) {
        const platform::Guard guard(lane.lock);
        count += size_t{lane.num_next} + lane.num_added;
    }
    const platform::Guard guard(queue.csect);
    return count + pq->count;
}
