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

// Puts an item with the lane's others; under the lane's lock.
void add(QUEUE &queue, SYS_LANE &lane, LINK &link) {
    link.qp = &queue.link;
    link.forw = nullptr;
    link.back = nullptr;
    LINK *&recent = lane.recent[lane.num_ever_added++ % kAhead];
    if (lane.num_added >= kAhead)
        recent->back = &link;
    recent = &link;
    if (lane.num_added == 0)
        lane.first_added = &link;
    else
        lane.last_added->forw = &link;
    lane.last_added = &link;
    set(lane.num_added, lane.num_added + 1);
}

// Fetches a run from the list into the lane, unless one is there by now, and takes its first item.
// NULL when the list is empty. `num_moves` tells the runs that have moved so far.
LINK *fetch(QUEUE &queue, SYS_LANE &lane, ULONG &num_moves) {
    const LaneGuard lane_guard(lane);
    if (lane.num_next == 0) {
        const CsectGuard guard(*queue.csp);
        if (queue.count != 0)
            move_run(queue, lane, kRun);
        num_moves = queue.num_moves;
    }
    return lane.num_next != 0 ? take_next(lane) : nullptr;
}

bool runs_have_moved(QUEUE &queue, ULONG num_moves) {
    const CsectGuard guard(*queue.csp);
    return queue.num_moves != num_moves;
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
    *pq = QUEUE{};
    Link_init(&pq->link);
    pq->link.forw = &pq->link;
    pq->link.back = &pq->link;
    pq->link.qp = &pq->link;
    pq->id = id;
    csect_init(pq->cs);
    pq->csp = &pq->cs;
}

void Queue_enq(QUEUE *pq, LINK *plink) {
    if (!SYS_CHECK(!Link_inuse(plink)))
        return;
    SYS_LANE &lane = own_lane(*pq);
    const LaneGuard lane_guard(lane);
    add(*pq, lane, *plink);
    if (lane.num_added < kRun)
        return;
    const CsectGuard guard(*pq->csp);
    append(*pq, lane.first_added, lane.last_added, kRun, true);
    ++pq->num_moves;
    set(lane.num_added, 0);
}

LINK *Queue_deq(QUEUE *pq) {
    SYS_LANE &lane = own_lane(*pq);
    if (LINK *item = take_at_hand(lane))
        return item;
    for (;;) {
        ULONG num_moves = 0;
        if (LINK *item = fetch(*pq, lane, num_moves))
            return item;
        if (LINK *item = take_from_lanes(*pq))
            return item;
        if (!runs_have_moved(*pq, num_moves))
            return nullptr;
    }
}

size_t Sys_get_queue_count(QUEUE *pq) {
    size_t count = 0;
    for (SYS_LANE &lane : pq->lanes) {
        const LaneGuard guard(lane);
        count += size_t{lane.num_next} + lane.num_added;
    }
    const CsectGuard guard(*pq->csp);
    return count + pq->count;
}
