/* What wakes an invoking thread: replies, being cancelled, getting its turn, time.
 *
 *   a host's thread --deliver--> [mailbox of the invocation] --take--> the invoking thread
 *
 * Whoever brings a reply only leaves it in the box; everything that follows from it is done by the
 * invoking thread, so that an invocation needs no lock of its own. A reply is taken in while its
 * request is expected, once; that is what the host is told about the reply counting.
 *
 * Left to others: what a reply means (delivery.h). */
#pragma once

#include <atomic>
#include <condition_variable>
#include <set>
#include <unordered_map>
#include <vector>

#include "engine/cluster.h"

namespace store {

class Mailbox;

class Mailroom {
public:
    explicit Mailroom(Clock &clock);
    Mailroom(const Mailroom &) = delete;
    Mailroom &operator=(const Mailroom &) = delete;

    /* From now on the reply to this request is taken in for `box`. Throws std::bad_alloc. */
    void expect(RequestId request, Mailbox &box);

    /* Takes no reply to this request in any more. False when it is in the box or has been taken. */
    bool forget(RequestId request);

    /* OMRALIB_ERR_BAD_ARGS when nobody expects the reply. */
    Status deliver(const Reply &reply);

    /* The replies that have come since the last time. */
    std::vector<Reply> take(Mailbox &box);

    /* Until there is mail, the box is nudged or cancelled, or `until` may have come; may return for
     * no reason. */
    void wait(Mailbox &box, Millis until);

    void nudge(Mailbox &box);
    void cancel(Mailbox &box);
    bool is_cancelled(const Mailbox &box);

private:
    friend class Mailbox;

    Clock &clock_;

    Mutex lock_; /* a leaf */
    std::set<Mailbox *> boxes_ ABSL_GUARDED_BY(lock_);
    std::unordered_map<RequestId, Mailbox *> expected_ ABSL_GUARDED_BY(lock_);
};

/* Of one invocation, as long as it runs. By the time it goes, nothing is expected for it. */
class Mailbox {
public:
    explicit Mailbox(Mailroom &room);
    Mailbox(const Mailbox &) = delete;
    Mailbox &operator=(const Mailbox &) = delete;
    ~Mailbox();

private:
    friend class Mailroom;

    Mailroom &room_;

    /* That there may be something below to look at. Set under the lock. */
    std::atomic<bool> has_mail_{false};

    /* Guarded by the lock of the mailroom, which the checker cannot tell from that of another one.
     */
    std::vector<Reply> replies_;
    std::size_t num_expected_ = 0;
    bool nudged_ = false;
    bool cancelled_ = false;
    std::condition_variable wake_;
};

} // namespace store
