#include "invocation/invocation.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <new>
#include <vector>

#include "invocation/answer.h"
#include "invocation/folding.h"

namespace store {

namespace {

constexpr Millis report_pause = 100; /* between two calls of a progress function */
constexpr Millis renewal_pause =
    millis_per_minute / 2; /* hosts' objects stay for a minute or more */

/* One invocation that has got its turn. */
class Invocation {
public:
    Invocation(InvocationRoom &room, const InvokeOrder &order, const Invoker &invoker, Mailbox &box,
               Millis deadline)
        : room_(room), order_(order), invoker_(invoker), box_(box), deadline_(deadline),
          delivery_(room, order, box, deadline, invoker.progress != nullptr),
          folding_(room, delivery_) {}
    Invocation(const Invocation &) = delete;
    Invocation &operator=(const Invocation &) = delete;
    ~Invocation();

    Status plan();
    Status work();
    OMRA_INVOKE_RESULT answer();
    void report();

private:
    void add_part(Share share);
    void settle_ended();
    void settle(const Task &task);
    void rest();
    void renew();
    std::vector<Key> exceptions_keys() const;
    OMRALIB_PROGRESS progress() const;
    void discard();

    InvocationRoom &room_;
    const InvokeOrder &order_;
    const Invoker &invoker_;
    Mailbox &box_;
    const Millis deadline_;

    std::deque<Task>
        parts_; /* the tasks that evaluate; constant after plan() but for their states */
    Delivery delivery_;
    Folding folding_;
    std::vector<Key> fold_exceptions_;
    Millis next_report_ = 0;
    Millis next_renewal_ = never;
    bool answered_ = false;
};

/* How many objects of a task that is over have been evaluated successfully. */
std::uint32_t num_successful(const Task &part) {
    return part.state == Task::State::completed ? std::min(part.num_successful, part.num_keys())
                                                : 0;
}

Invocation::~Invocation() {
    try {
        if (!answered_) {
            discard();
        }
    } catch (const std::bad_alloc &) {
        /* What could not be removed goes when its time-out has passed. */
    }
}

/* Plan -------------------------------------------------------------------------------------------
 */

void Invocation::add_part(Share share) {
    Task &part = parts_.emplace_back();
    part.host = share.host;
    part.keys = std::make_shared<const std::vector<Key>>(std::move(share.keys));
    delivery_.add(part);
}

Status Invocation::plan() {
    const std::vector<HostId> hosts = delivery_.hosts();
    if (hosts.empty()) {
        return OMRALIB_ERR_NO_WORKER;
    }
    if (order_.is_invoke_once()) {
        add_part({hosts.front(), {Key{}}});
        return OMRALIB_RET_SUCCESS;
    }
    std::vector<Key> keys;
    const Status status = room_.engine.find(order_.selection, keys);
    if (status == OMRALIB_RET_SUCCESS && !keys.empty()) {
        for (Share &share : room_.engine.share_out(std::move(keys), hosts)) {
            add_part(std::move(share));
        }
    }
    return status;
}

/* Deliver and fold -------------------------------------------------------------------------------
 */

/* Until everything is over, with OMRALIB_RET_SUCCESS, or the deadline has come, or the invocation
 * has been cancelled. */
Status Invocation::work() {
    next_renewal_ = room_.clock.now() + renewal_pause;
    for (;;) {
        if (room_.mailroom.is_cancelled(box_)) {
            return OMRALIB_ERR_CANCELLED;
        }
        delivery_.take_mail();
        settle_ended();
        folding_.start();
        if (delivery_.is_empty()) {
            return OMRALIB_RET_SUCCESS;
        }
        if (room_.clock.now() >= deadline_) {
            return OMRALIB_ERR_INVOKE_TIMEOUT;
        }
        if (!delivery_.send_next()) {
            rest();
        }
    }
}

void Invocation::settle_ended() {
    while (const Task *task = delivery_.take_ended()) {
        settle(*task);
    }
}

void Invocation::settle(const Task &task) {
    if (task.is_fold()) {
        const Key exceptions_key = task.exceptions_key;
        if (task.state != Task::State::stopped && folding_.settle(task)) {
            fold_exceptions_.push_back(exceptions_key);
        }
    } else if (task.state == Task::State::completed) {
        room_.figures.num_evaluated += task.num_keys();
        if (room_.objects.exists(task.results_key)) {
            folding_.add(task.results_key, num_successful(task));
        }
    }
}

/* Sleeps until there is something to do. */
void Invocation::rest() {
    const Millis now = room_.clock.now();
    if (invoker_.progress != nullptr && now >= next_report_) {
        report();
        next_report_ = now + report_pause;
    }
    if (now >= next_renewal_) {
        renew();
        next_renewal_ = now + renewal_pause;
    }
    Millis until = std::min({deadline_, delivery_.next_due(), next_renewal_});
    if (invoker_.progress != nullptr) {
        until = std::min(until, next_report_);
    }
    room_.mailroom.wait(box_, until);
}

/* Keeps what is done from expiring before the slowest host is. */
void Invocation::renew() {
    folding_.renew();
    for (const Key &key : exceptions_keys()) {
        room_.objects.renew(key);
    }
}

/* Answer -----------------------------------------------------------------------------------------
 */

/* Those that there may be: of hosts in the order of their shares, then of folds. */
std::vector<Key> Invocation::exceptions_keys() const {
    std::vector<Key> keys;
    for (const Task &part : parts_) {
        if (part.state == Task::State::completed) {
            keys.push_back(part.exceptions_key);
        }
    }
    keys.insert(keys.end(), fold_exceptions_.begin(), fold_exceptions_.end());
    return keys;
}

OMRA_INVOKE_RESULT Invocation::answer() {
    OMRA_INVOKE_RESULT result{};
    result.reserved = OMRALIB_INDEX_OP_INVOKE;
    result.results_key = folding_.finish();
    std::uint64_t matched = 0;
    std::uint64_t successful = 0;
    for (const Task &part : parts_) {
        matched += part.num_keys();
        successful += num_successful(part);
    }
    successful -= folding_.num_lost();
    result.num_successful = static_cast<ULONG>(successful);
    result.num_failed = static_cast<ULONG>(matched - successful);
    const std::vector<Key> keys = exceptions_keys();
    if (result.num_failed != 0) {
        result.exceptions_key = join_exceptions(room_.objects, keys, delivery_.object_timeout_m());
    } else {
        /* Whoever hears of no failure does not ask for exceptions. */
        for (const Key &key : keys) {
            room_.objects.remove(key);
        }
    }
    answered_ = true;
    return result;
}

void Invocation::discard() {
    delivery_.stop();
    settle_ended();
    folding_.discard();
    for (const Key &key : exceptions_keys()) {
        room_.objects.remove(key);
    }
}

/* Progress ---------------------------------------------------------------------------------------
 */

OMRALIB_PROGRESS Invocation::progress() const {
    OMRALIB_PROGRESS progress{};
    progress.num_failed = folding_.num_lost();
    for (const Task &part : parts_) {
        progress.num_matched += part.num_keys();
        ++progress.num_hosts;
        if (part.is_over()) {
            ++progress.num_hosts_done;
            progress.num_done += part.num_keys();
            progress.num_failed += part.num_keys() - num_successful(part);
        } else if (part.state == Task::State::sent) {
            progress.num_done += room_.engine.num_begun(part.host, part.request);
        }
    }
    return progress;
}

void Invocation::report() {
    if (invoker_.progress != nullptr) {
        const OMRALIB_PROGRESS now = progress();
        invoker_.progress(&now, invoker_.progress_arg);
    }
}

/* Counts an invocation while it runs. */
class RunningFigures {
public:
    explicit RunningFigures(InvocationFigures &figures) : figures_(figures) {
        ++figures_.num_running;
    }
    RunningFigures(const RunningFigures &) = delete;
    RunningFigures &operator=(const RunningFigures &) = delete;
    ~RunningFigures() {
        using std::chrono::microseconds;
        const auto time = std::chrono::steady_clock::now() - start_;
        const auto us = std::chrono::duration_cast<microseconds>(time).count();
        figures_.time_us += static_cast<std::uint64_t>(us);
        --figures_.num_running;
        ++figures_.num_finished;
    }

private:
    InvocationFigures &figures_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace

/* The room ---------------------------------------------------------------------------------------
 */

/* Makes an invocation known by its handle while it lives. */
class Invocations::Registration {
public:
    Registration(Invocations &room, OMRALIB_HANDLE hdl, Mailbox &box) : room_(room), hdl_(hdl) {
        const std::lock_guard guard(room_.lock_);
        room_.by_handle_[hdl_] = &box;
    }
    Registration(const Registration &) = delete;
    Registration &operator=(const Registration &) = delete;
    ~Registration() {
        const std::lock_guard guard(room_.lock_);
        room_.by_handle_.erase(hdl_);
    }

private:
    Invocations &room_;
    const OMRALIB_HANDLE hdl_;
};

Status Invocations::run(const InvokeOrder &order, const Invoker &invoker,
                        OMRA_INVOKE_RESULT &result_out) {
    const RunningFigures running(room_.figures);
    const Millis timeout = order.header.invoke_timeout * millis_per_second;
    const Millis deadline = timeout != 0 ? room_.clock.now() + timeout : never;
    Mailbox box(room_.mailroom);
    const Registration registration(*this, invoker.hdl, box);
    const Admission::Place place(admission_, box);
    while (!place.is_admitted()) {
        if (room_.mailroom.is_cancelled(box)) {
            return OMRALIB_ERR_CANCELLED;
        }
        if (room_.clock.now() >= deadline) {
            return OMRALIB_ERR_INVOKE_TIMEOUT;
        }
        room_.mailroom.wait(box, deadline);
    }
    Invocation invocation(room_, order, invoker, box, deadline);
    Status status = invocation.plan();
    if (status != OMRALIB_RET_SUCCESS) {
        return status;
    }
    status = invocation.work();
    if (status == OMRALIB_RET_SUCCESS) {
        result_out = invocation.answer();
    }
    invocation.report();
    return status;
}

void Invocations::cancel(OMRALIB_HANDLE hdl) {
    const std::lock_guard guard(lock_);
    const auto found = by_handle_.find(hdl);
    if (found != by_handle_.end()) {
        room_.mailroom.cancel(*found->second);
    }
}

} // namespace store
