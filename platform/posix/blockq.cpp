// Blocking queues: Blockq_*.
//
// Items are added to the list one by one, in order, and fetched in runs; see lanes.h. How long a
// run may be follows from how quick the reader was with the one before: half as long when that took
// it more than kLongRunNs, twice as long, up to kRun, when it took much less. So a reader that is
// slow with its items leaves them in the list for others.
//
// A reader that finds nothing at hand and nothing in the list looks through the lanes, where it
// takes one item at a time, the oldest: so what a reader has fetched and does not get to goes to
// those with nothing else to do. As long as the list is never empty nobody looks there; therefore a
// reader that fetches a run also checks one lane after the other, and as long as the lane's own
// threads have taken nothing since the last check, it takes an item of that lane instead.
//
// Sleeping and waking. A reader that has found nothing looks out for a moment. Then it counts
// itself as a sleeper, under the list's critical section and while the list is empty, looks through
// the lanes once more, and waits at the semaphore. Whoever adds an item sees the sleepers under the
// same critical section, and wakes one unless one is being woken: `waking` stands from that
// decision until the woken reader clears it, which it does before it looks for items. Having found
// one, it wakes the next if there are more. So while there are both items and sleepers, somebody is
// being woken or is looking, and one wake on its way is enough. A reader whose time is over may
// leave a token that was meant for it: `waking` still stands then, the token ends the next reader's
// wait at once, and that one clears `waking` and looks once more.
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

constexpr ULONGLONG kLongRunNs = 100'000;

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

// A woken reader has found an item: are there more, the next one is to come.
void pass_on(BLOCKQ &bq) {
    Machinery &queue = machinery_of(bq.itemq);
    bool waking = false;
    {
        const platform::Guard guard(queue.csect);
        const bool left_over =
            bq.itemq.count != 0 || std::any_of(queue.lanes.begin(), queue.lanes.end(),
                                               [](Lane &lane) { return lane.num_next != 0; });
        waking = left_over && decide_to_wake(queue);
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
// NULL when the list is empty.
LINK *fetch(Machinery &queue, Lane &lane) {
    const platform::Guard lane_guard(lane.lock);
    if (lane.num_next == 0) {
        // The clock is for longer runs only.
        const ULONG limit = queue.peek_count() > 1 ? next_run_limit(lane) : 1;
        const platform::Guard guard(queue.csect);
        if (queue.record.count == 0)
            return nullptr;
        queue.move_run(lane, limit);
    }
    lane.num_taken = lane.num_taken + 1;
    return take_next(lane);
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
LINK *look_around(Machinery &queue, Lane &lane) {
    if (LINK *item = take_stuck(queue))
        return item;
    if (LINK *item = fetch(queue, lane))
        return item;
    return queue.take_from_lanes();
}

// False when there is something in the list.
bool become_sleeper(Machinery &queue) {
    const platform::Guard guard(queue.csect);
    if (queue.record.count != 0)
        return false;
    ++queue.num_sleepers;
    return true;
}

void cease_to_be_sleeper(Machinery &queue, bool woken) {
    const platform::Guard guard(queue.csect);
    --queue.num_sleepers;
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
    if (platform::look_out_for([&] { return queue.peek_count() != 0; }))
        item = look_around(queue, lane);
    for (bool in_time = true; item == nullptr && in_time;) {
        if (become_sleeper(queue)) {
            item = queue.take_from_lanes();
            if (item == nullptr) {
                in_time = wait_for_token(bq.sem.sem, forever ? nullptr : &deadline);
                woken = woken || in_time;
            }
            cease_to_be_sleeper(queue, item == nullptr && in_time);
        }
        if (item == nullptr)
            item = look_around(queue, lane);
    }
    if (item != nullptr && woken)
        pass_on(bq);
    return item;
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
    bool waking = false;
    {
        const platform::Guard guard(queue.csect);
        queue.append(plink, plink, 1, false);
        waking = decide_to_wake(queue);
    }
    if (waking)
        wake(*pbq);
}

LINK *Blockq_deq(BLOCKQ *pbq, unsigned int timeout_ms) {
    Machinery &queue = machinery_of(pbq->itemq);
    Lane &lane = queue.own_lane();
    if (LINK *item = take_at_hand(lane))
        return item;
    LINK *item = look_around(queue, lane);
    if (item != nullptr || timeout_ms == 0)
        return item;
    return wait_for_item(*pbq, lane, timeout_ms);
}
