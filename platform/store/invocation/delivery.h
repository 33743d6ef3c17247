/* Getting tasks done by hosts: a request is sent, tried again, given to another host, withdrawn.
 *
 *                      +------------- refused: after a pause, or elsewhere
 *                      v                                     |
 *   add -->  idle --send_next--> sent --take_mail--> completed
 *             |  ^                |  |
 *             |  +-- host gone or silent: elsewhere
 *             v                      |
 *            lost: no host is left   +--stop--> stopped
 *
 * Every sending is a request of its own, with results and exceptions keys of its own, so that
 * whatever a host did or still does for an earlier sending reaches nobody: its objects are dropped,
 * its reply no longer counts.
 *
 * A host that refuses for the moment (OMRALIB_INVOKE_NO_KEYS, OMRALIB_INVOKE_NO_MEMORY) is asked
 * again after 10 ms, 20 ms and so on up to 1 s, eight times; any other refusal is final. A host is
 * silent when all of this holds: half of the time that remained at the sending has passed without a
 * word; that is twice the time that any other host has taken for its keys, which would be enough
 * once more; and a host has nothing to do for the invocation. So hosts that are all slow are left
 * alone. An invocation without a deadline waits for a silent host until it is declared gone.
 *
 * Left to others: what the tasks are and what follows from their ends (invocation.h, folding.h).
 * All of it runs on the invoking thread. */
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <vector>

#include "invocation/mailroom.h"
#include "invocation/temp_objects.h"
#include "query/request.h"

namespace store {

/* What the invocations of a store share. */
struct InvocationFigures {
    std::atomic<std::uint64_t> num_finished{0};
    std::atomic<std::uint64_t> num_running{0};
    std::atomic<std::uint64_t> num_evaluated{0};
    std::atomic<std::uint64_t> num_folds{0};
    std::atomic<std::uint64_t> num_refusals{0};
    std::atomic<std::uint64_t> num_retries{0};
    std::atomic<std::uint64_t> time_us{0};
};

struct InvocationRoom {
    InvocationRoom(Engine &its_engine, Clock &its_clock)
        : engine(its_engine), clock(its_clock), mailroom(its_clock), objects(its_engine) {}

    Engine &engine;
    Clock &clock;

    /* Self-synchronised. */
    Mailroom mailroom;
    TempObjects objects;
    InvocationFigures figures;
    std::atomic<RequestId> next_request{1};
};

/* Something that a host is to do. */
struct Task {
    enum class State { idle, sent, completed, lost, stopped };

    /* Constant. */
    KeyList keys; /* to evaluate; nullptr for a fold */
    Key target{}; /* of a fold: the results object whose copy ... */
    Key source{}; /* ... this one is merged into */

    State state = State::idle;
    HostId host = 0;                /* whom it is for; 0: whoever has least to do */
    std::vector<HostId> given_up;   /* hosts that are not asked any more */
    std::uint32_t num_sent = 0;     /* times */
    std::uint32_t num_refusals = 0; /* of this host */
    Millis due = 0; /* idle: when it may be sent; sent: when the host may count as silent */
    Millis sent_at = 0;

    /* Of the last sending. */
    RequestId request = 0;
    Key results_key{};
    Key exceptions_key{};

    /* Once it is completed, as the host said. */
    std::uint32_t num_successful = 0;
    std::uint32_t num_failed = 0;

    std::uint32_t num_keys() const {
        return keys != nullptr ? static_cast<std::uint32_t>(keys->size()) : 0;
    }
    bool is_fold() const { return keys == nullptr; }
    bool is_over() const { return state != State::idle && state != State::sent; }
};

class Delivery {
public:
    /* `watched`: the requests are asked how far they are. */
    Delivery(InvocationRoom &room, const InvokeOrder &order, Mailbox &box, Millis deadline,
             bool watched)
        : room_(room), order_(order), box_(box), deadline_(deadline), watched_(watched) {}
    Delivery(const Delivery &) = delete;
    Delivery &operator=(const Delivery &) = delete;
    ~Delivery() { stop(); }

    /* The hosts that can be asked now. */
    std::vector<HostId> hosts() const;

    /* `task` stays where it is until it is over and has been taken. */
    void add(Task &task) { tasks_.push_back(&task); }

    /* Notes the replies that have come and moves tasks away from silent hosts. */
    void take_mail();

    /* Sends one task that is due; false when there is none. */
    bool send_next();

    /* One task that is over, which is then no longer this delivery's; nullptr when there is none.
     */
    Task *take_ended();

    bool is_empty() const { return tasks_.empty(); }

    /* When something is due next, if no mail comes before. */
    Millis next_due() const;

    /* Withdraws what is not over. */
    void stop();

    /* Minutes that temporary objects stay after their last use, like those that hosts make. */
    std::uint32_t object_timeout_m() const;

private:
    Task *find(RequestId request) const;
    void note(Task &task, const Reply &reply);
    void note_refusal(Task &task, int refusal);
    void put_off(Task &task);
    void take_away(Task &task);
    void drop_objects(const Task &task);
    void withdraw(Task &task);
    Millis silent_at(const Task &task) const;
    void move_silent(Task &task);
    std::size_t load_of(HostId host) const;
    HostId choose_host(const Task &task);
    bool make_copy(const Task &task);
    std::shared_ptr<Request> make_request(const Task &task) const;
    void send(Task &task);

    /* Constant. */
    InvocationRoom &room_;
    const InvokeOrder &order_;
    Mailbox &box_;
    const Millis deadline_;
    const bool watched_;

    std::vector<Task *> tasks_;
    std::vector<HostId> distrusted_; /* that a task has been taken away from */
    HostId last_chosen_ = 0;
    Millis longest_ = 0; /* time that a host took for its keys */
};

} // namespace store
