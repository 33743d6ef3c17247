/* Getting tasks done by hosts: a request is sent, tried again, given to another host, withdrawn.
 *
 *                      +------------- refused: after a pause, or elsewhere
 *                      v                                     |
 *   add -->  idle --send_next--> sent --take_mail--> completed
 *             |  ^                |  |
 *             |  +-- host gone or silent, or unknown whether it was reached: elsewhere
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

#include <cstdint>
#include <list>
#include <optional>
#include <vector>

#include "invocation/shared.h"
#include "query/request.h"

namespace store {

/* A results object and the successful objects behind it. */
struct Partial {
    Key key{};
    std::uint64_t num_successful = 0;
};

/* The source is to be merged into a copy of the target. */
struct Fold {
    Partial target;
    Partial source;
};

/* Something that a host is to do. */
struct Task {
    enum class State : std::uint8_t { idle, sent, completed, lost, stopped };

    Task(std::size_t its_index, Share its_share);
    explicit Task(const Fold &its_fold) : is_fold(true), fold(its_fold) {}

    /* Constant. */
    bool is_fold = false;
    std::size_t index = 0; /* of the share in its plan */
    Share share;           /* to evaluate; its host counts for the first sending */
    Fold fold;

    State state = State::idle;
    HostId host;                    /* whom it is for; none: whoever has least to do */
    std::vector<HostId> given_up;   /* hosts that are not asked any more */
    std::uint32_t num_sent = 0;     /* times */
    std::uint32_t num_refusals = 0; /* of this host, in a row */
    Millis send_at = 0;             /* while idle: not before */

    /* Objects to evaluate; for a part of the key space not known before a host has found them. */
    std::optional<std::uint64_t> num_matched;

    /* Of the last sending. */
    RequestId request = 0;
    Key results_key{};
    Key exceptions_key{};
    Millis sent_at = 0;
    Millis may_be_silent_at = 0; /* half of the time that was left has passed */

    /* Once it is completed, as the host said. */
    std::uint32_t num_successful = 0;
    std::uint32_t num_failed = 0;

    bool lacks_room = false; /* there was no room for an object of it */

    bool is_over() const { return state != State::idle && state != State::sent; }
};

class Delivery {
public:
    /* `progress_is_wanted`: of the requests that evaluate; see Request. */
    Delivery(Shared &shared, const InvokeOrder &order, Mailbox &box, Millis deadline,
             bool progress_is_wanted)
        : shared_(shared), order_(order), box_(box), deadline_(deadline),
          progress_is_wanted_(progress_is_wanted) {}
    Delivery(const Delivery &) = delete;
    Delivery &operator=(const Delivery &) = delete;
    ~Delivery() { stop(); }

    /* The hosts that can be asked now. */
    Status find_hosts(std::vector<HostId> &hosts_out) const;

    void add(Task task) { tasks_.push_back(std::move(task)); }

    /* Notes the replies that have come and moves tasks away from silent hosts. */
    void take_mail();

    /* Sends one task whose time has come; false when there is none. */
    bool send_next();

    /* Hands out one task that is over; none when there is none. */
    std::optional<Task> take_ended();

    /* Those that have not been handed out. */
    const std::list<Task> &tasks() const { return tasks_; }

    /* When something is to be done next, if no mail comes before. */
    Millis next_due() const;

    /* Withdraws what is not over. */
    void stop();

    /* Keeps what hosts have made for tasks that are not over from expiring. */
    void renew();

private:
    Task *find(RequestId request);
    void note(Task &task, const Reply &reply);
    void note_refusal(Task &task, int refusal);
    void put_off(Task &task);
    void take_away(Task &task);
    void drop_objects(const Task &task);
    void withdraw(const Task &task);
    Millis silent_at(const Task &task) const;
    void move_silent(Task &task);
    std::size_t load_of(const HostId &host) const;
    HostId choose_host(const Task &task, const std::vector<HostId> &hosts) const;
    Request make_request(const Task &task) const;
    void send(Task &task);
    bool prepare(Task &task);

    /* Constant. */
    Shared &shared_;
    const InvokeOrder &order_;
    Mailbox &box_;
    const Millis deadline_;
    const bool progress_is_wanted_;

    std::list<Task> tasks_;
    std::vector<HostId> distrusted_; /* that a task has been taken away from */
    HostId last_chosen_;
    Millis longest_ = 0; /* time that a host took for its keys */
};

} // namespace store
