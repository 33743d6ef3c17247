// Blocking queues: Blockq_*.
//
// Items are added in the lane of their thread, and go to the list in runs; see lanes.h. A reader
// fetches a run at a time: half as many items as before when those took it more than kLongRunNs,
// twice as many, up to kRun, when they took much less, and no more than half of a list that is soon
// at its end. So a reader that is slow with its items leaves them in the list for others.
//
// A reader that finds nothing at hand and nothing in the list does not wait until a run is full: it
// takes the item that was added in a lane, or brings several to the list, of which it fetches its
// share. Nothing there either, it takes what another reader has fetched and not got to, one item at
// a time. As long as there are others nobody looks there; therefore a reader that looks around also
// checks one lane after the other, and as long as the lane's own threads have taken nothing since
// the last check, it takes an item of that lane instead.
//
// Sleeping and waking. A reader that has found nothing looks out for a moment. Then it counts
// itself as a sleeper, under the list's critical section and while the list is empty, looks through
// the lanes once more, and waits at the semaphore. Who adds an item to an empty lane announces it
// first, and looks for sleepers then: either he sees the sleeper, or the sleeper sees the item. Who
// adds to a lane that is not empty need not look: whoever counts himself from now on finds the
// first item, and for those that slept before it came a wake is on its way. Who brings items to the
// list looks for sleepers as well, since one may have looked through the list before and through
// the lane behind.
//
// One reader is woken, unless one is being woken: `waking` stands from that decision until the
// woken reader clears it, which it does before it looks for items. Having found one, it wakes the
// next if there are more. So while there are both items and sleepers, somebody is being woken or is
// looking, and one wake on its way is enough. A reader whose time is over may leave a token that
// was meant for it: `waking` still stands then, the token ends the next reader's wait at once, and
// that one clears `waking` and looks once more.
#include <algorithm>
#include <cerrno>

#include "check.h"
#include "common/spin_wait.h"
#include "lanes.h"
#include "timed_wait.h"

using namespace sysutil;

namespace {

constexpr ULONG kBlockqCode = 0x424C4B51;
constexpr ULONG kSemCode = 0x53454D41;

constexpr ULONGLONG kLongRunNs = 1'000'000;

ULONGLONG now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<ULONGLONG>(now.tv_sec) * 1'000'000'000 + static_cast<ULONGLONG>(now.tv_nsec);
}

// Whether the caller is to wake a sleeper once it has left the critical section.
bool decide_to_wake(Machinery &queue) ABSL_EXCLUSIVE_LOCKS_REQUIRED(queue.csect) {
    if (queue.num_sleepers == 0 || queue.waking)
        return false;
    queue.waking = true;
    return true;
}

void wake(BLOCKQ &bq) {
    sem_post(&bq.sem.sem);
}

// Whether there is an item, in the list or in a lane.
bool has_items(Machinery &queue) {
    return queue.peek_count() != 0 ||
           std::any_of(queue.lanes.begin(), queue.lanes.end(), [](const Lane &lane) {
               return lane.num_next != 0 || lane.num_added.look() != 0;
           });
}

// A woken reader has found an item: are there more, the next one is to come.
void pass_on(BLOCKQ &bq) {
    Machinery &queue = machinery_of(bq.itemq);
    bool waking = false;
    {
        const platform::Guard guard(queue.csect);
        waking = has_items(queue) && decide_to_wake(queue);
    }
    if (waking)
        wake(bq);
}

// How many items the lane's next run may have.
ULONG next_run_limit(Lane &lane) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lane.lock) {
    const ULONGLONG now = now_ns();
    const ULONGLONG duration = now - lane.run_began_ns;
    lane.run_began_ns = now;
    if (duration > kLongRunNs)
        lane.run_limit = std::max<ULONG>(lane.run_limit / 2, 1);
    else if (duration < kLongRunNs / 4)
        lane.run_limit = std::clamp<ULONG>(2 * lane.run_limit, 1, kRun);
    return lane.run_limit;
}

// Fetches a run from the list into the lane, unless one is there by now, and takes its first item.
// A list that is soon at its end is shared with the next reader. NULL when it is empty.
LINK *fetch(Machinery &queue, Lane &lane) {
    if (queue.peek_count() == 0)
        return nullptr;
    const platform::Guard lane_guard(lane.lock);
    if (lane.num_next == 0) {
        const ULONG limit = next_run_limit(lane);
        const platform::Guard guard(queue.csect);
        const ULONG count = queue.record.count;
        if (count == 0)
            return nullptr;
        queue.move_run(lane, std::min(limit, (count + 1) / 2));
    }
    lane.num_taken = lane.num_taken + 1;
    return take_next(lane);
}

// Takes the item that has been added in a lane, if it is the only one; moves several to the list
// instead, where a reader fetches its share. Those in the list may have been added here before.
LINK *take_or_move_added(BLOCKQ &bq, Lane &lane) {
    Machinery &queue = machinery_of(bq.itemq);
    bool waking = false;
    {
        const platform::Guard lane_guard(lane.lock);
        if (lane.num_added == 0 || queue.peek_count() != 0)
            return nullptr;
        if (lane.num_added == 1)
            return take_added(lane);
        const platform::Guard guard(queue.csect);
        if (queue.record.count == 0) {
            queue.append_added(lane);
            waking = decide_to_wake(queue);
        }
    }
    if (waking)
        wake(bq);
    return nullptr;
}

// An item that the threads of its lane do not get to, or NULL. Checks one lane, the next one at the
// next call; but a lane that they still do not get to is checked again.
LINK *take_stuck(Machinery &queue) {
    const ULONG index = queue.lane_to_check;
    Lane &lane = queue.lanes[index % kNumLanes];
    if (lane.num_next != 0) {
        const platform::Guard guard(lane.lock);
        if (lane.num_next != 0 && lane.num_taken == lane.num_taken_seen)
            return take_next(lane);
        lane.num_taken_seen = lane.num_taken;
    }
    queue.lane_to_check = index + 1;
    return nullptr;
}

// Everything that can be had without waiting.
LINK *look_around(BLOCKQ &bq, Lane &lane) {
    Machinery &queue = machinery_of(bq.itemq);
    if (LINK *item = take_stuck(queue))
        return item;
    do {
        if (LINK *item = fetch(queue, lane))
            return item;
        for (Lane &other : queue.lanes) {
            if (other.num_added == 0)
                continue;
            if (LINK *item = take_or_move_added(bq, other))
                return item;
        }
    } while (queue.peek_count() != 0);
    return queue.take_from_lanes();
}

// False when there is something in the list: who fetches it would not look for sleepers.
bool become_sleeper(Machinery &queue) {
    const platform::Guard guard(queue.csect);
    if (queue.record.count != 0)
        return false;
    queue.num_sleepers.announce(queue.num_sleepers + 1);
    return true;
}

void cease_to_be_sleeper(Machinery &queue, bool woken) {
    const platform::Guard guard(queue.csect);
    queue.num_sleepers = queue.num_sleepers - 1;
    if (woken)
        queue.waking = false;
}

// False when the deadline, or NULL for none, has come first.
bool wait_for_token(sem_t &sem, const timespec *deadline) {
    int ret = 0;
    do {
        ret = deadline == nullptr ? sem_wait(&sem) : wait_until(sem, *deadline);
    } while (ret != 0 && errno == EINTR);
    return ret == 0;
}

LINK *wait_for_item(BLOCKQ &bq, Lane &lane, unsigned int timeout_ms) {
    Machinery &queue = machinery_of(bq.itemq);
    const bool forever = timeout_ms == SYS_WAIT_FOREVER;
    const timespec deadline = forever ? timespec{} : deadline_after(timeout_ms);
    LINK *item = nullptr;
    bool woken = false;
    if (platform::look_out_for([&] { return has_items(queue); }))
        item = look_around(bq, lane);
    for (bool in_time = true; item == nullptr && in_time;) {
        if (become_sleeper(queue)) {
            const bool waits = !has_items(queue);
            if (waits) {
                in_time = wait_for_token(bq.sem.sem, forever ? nullptr : &deadline);
                woken = woken || in_time;
            }
            cease_to_be_sleeper(queue, waits && in_time);
        }
        item = look_around(bq, lane);
    }
    if (item != nullptr && woken)
        pass_on(bq);
    return item;
}

// An item that is not at hand.
[[gnu::noinline]] LINK *look_and_wait(BLOCKQ &bq, Lane &lane, unsigned int timeout_ms) {
    LINK *item = look_around(bq, lane);
    if (item != nullptr || timeout_ms == 0)
        return item;
    return wait_for_item(bq, lane, timeout_ms);
}

} // namespace

void Blockq_init(BLOCKQ *pbq, unsigned int id) {
    Queue_init(&pbq->itemq, id);
    pbq->sem.code = kSemCode;
    sem_init(&pbq->sem.sem, 0, 0);
    pbq->csp = pbq->itemq.csp;
    pbq->code = kBlockqCode;
    pbq->id = id;
}

void Blockq_enq(BLOCKQ *pbq, LINK *plink) {
    if (!SYS_CHECK(!Link_inuse(plink)))
        return;
    plink->qp = &pbq->itemq.link;
    Machinery &queue = machinery_of(pbq->itemq);
    Lane &lane = queue.own_lane();
    ULONG num_added = 0;
    bool waking = false;
    {
        const platform::Guard lane_guard(lane.lock);
        num_added = add(lane, *plink);
        if (num_added == kRun) {
            const platform::Guard guard(queue.csect);
            queue.append_added(lane);
            waking = decide_to_wake(queue);
        }
    }
    if (num_added == 1 && queue.num_sleepers.look() != 0) {
        const platform::Guard guard(queue.csect);
        waking = decide_to_wake(queue);
    }
    if (waking)
        wake(*pbq);
}

LINK *Blockq_deq(BLOCKQ *pbq, unsigned int timeout_ms) {
    Machinery &queue = machinery_of(pbq->itemq);
    Lane &lane = queue.own_lane();
    if (LINK *item = take_at_hand(lane)) [[likely]]
        return item;
    return look_and_wait(*pbq, lane, timeout_ms);
}
