// Intrusive queues: Link_*, Queue_* and Blockq_*.
//
// In call order: Link_init for every item, Queue_init or Blockq_init, then _enq and _deq by any
// thread.
//
// A queue is a ring of links through the queue's own link, guarded by the queue's critical section.
// A blocking queue adds a semaphore whose value is the number of items that no reader has claimed:
// a reader claims one, which lets it take exactly one item from the head. The semaphore enters the
// kernel only when a reader has to wait or is waiting, so a queue that never runs empty costs no
// system call.
//
// Items belong to their users: a queue neither allocates nor releases them.
#include <cerrno>

#include "check.h"
#include "csect.h"
#include "exported.h"
#include "timed_wait.h"

namespace {

constexpr ULONG kLinkCode = 0x4C494E4B;
constexpr ULONG kBlockqCode = 0x424C4B51;
constexpr ULONG kSemCode = 0x53454D41;

// False, and nothing is changed, when the link is on a queue already: linking it once more would
// tear that queue apart.
bool append(QUEUE &queue, LINK &link) {
    if (!SYS_CHECK(!Link_inuse(&link)))
        return false;
    const sysutil::CsectGuard guard(*queue.csp);
    LINK &head = queue.link;
    link.forw = &head;
    link.back = head.back;
    link.qp = &head;
    head.back->forw = &link;
    head.back = &link;
    ++queue.count;
    return true;
}

// Waits until an item may be claimed; false when the time is over first.
bool claim_item(sem_t &items, unsigned int timeout_ms) {
    // Most readers find an item and need no deadline.
    if (sem_trywait(&items) == 0)
        return true;
    if (timeout_ms == 0)
        return false;
    const bool forever = timeout_ms == SYS_WAIT_FOREVER;
    const timespec deadline = forever ? timespec{} : sysutil::deadline_after(timeout_ms);
    int ret = 0;
    do {
        ret = forever ? sem_wait(&items) : sysutil::wait_until(items, deadline);
    } while (ret != 0 && errno == EINTR);
    return ret == 0;
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
    sysutil::csect_init(pq->cs);
    pq->csp = &pq->cs;
}

void Queue_enq(QUEUE *pq, LINK *plink) {
    append(*pq, *plink);
}

LINK *Queue_deq(QUEUE *pq) {
    const sysutil::CsectGuard guard(*pq->csp);
    LINK *first = pq->link.forw;
    if (first == &pq->link)
        return nullptr;
    pq->link.forw = first->forw;
    first->forw->back = &pq->link;
    first->forw = nullptr;
    first->back = nullptr;
    first->qp = nullptr;
    --pq->count;
    return first;
}

void Blockq_init(BLOCKQ *pbq, unsigned int id) {
    Queue_init(&pbq->itemq, id);
    pbq->sem.code = kSemCode;
    sem_init(&pbq->sem.sem, 0, 0);
    pbq->csp = pbq->itemq.csp;
    pbq->code = kBlockqCode;
    pbq->id = id;
}

void Blockq_enq(BLOCKQ *pbq, LINK *plink) {
    if (append(pbq->itemq, *plink))
        sem_post(&pbq->sem.sem);
}

LINK *Blockq_deq(BLOCKQ *pbq, unsigned int timeout_ms) {
    return claim_item(pbq->sem.sem, timeout_ms) ? Queue_deq(&pbq->itemq) : nullptr;
}
