/* Plan, deliver and fold, answer. */
#include "invocation/invocation.h"

#include <algorithm>

#include "invocation/exceptions.h"

namespace store {

namespace {

constexpr Millis report_pause = 100; /* between two calls of a progress function */
constexpr Millis renewal_pause =
    millis_per_minute / 2; /* hosts' objects stay for a minute or more */

} // namespace

Invocation::~Invocation() {
    if (!answered_) {
        discard();
    }
}

Status Invocation::run(OMRA_INVOKE_RESULT &result_out) {
    Status status = plan();
    if (status != OMRALIB_RET_SUCCESS) {
        return status;
    }
    status = work();
    if (status == OMRALIB_RET_SUCCESS) {
        status = answer(result_out);
    }
    report();
    return status;
}

/* Plan ---------------------------------------------------------------------------------------- */

Status Invocation::plan() {
    std::vector<HostId> hosts;
    Status status = delivery_.find_hosts(hosts);
    if (status != OMRALIB_RET_SUCCESS) {
        return status;
    }
    if (hosts.empty()) {
        return OMRALIB_ERR_NO_WORKER;
    }
    std::vector<Share> shares;
    if (order_.is_invoke_once()) {
        shares.push_back({hosts.front(), false, {Key{}}, {}, {}});
    } else {
        status = shared_.cluster.plan(
            order_.selection, hosts, [this] { return check_for_end(); }, shares);
    }
    /* Room for all that can come of them, so that what a host has made is never lost sight of. */
    parts_.reserve(shares.size());
    fold_exceptions_.reserve(shares.size());
    folding_.expect(shares.size());
    for (std::size_t i = 0; i < shares.size(); ++i) {
        delivery_.add(Task(i, std::move(shares[i])));
    }
    return status;
}

/* Deliver and fold ---------------------------------------------------------------------------- */

Status Invocation::check_for_end() {
    return shared_.mailroom.is_cancelled(box_) ? OMRALIB_ERR_CANCELLED
           : shared_.clock.now() >= deadline_  ? OMRALIB_ERR_INVOKE_TIMEOUT
                                               : OMRALIB_RET_SUCCESS;
}

/* Until everything is over, with OMRALIB_RET_SUCCESS, or the deadline has come, or the invocation
 * has been cancelled. */
Status Invocation::work() {
    next_renewal_ = shared_.clock.now() + renewal_pause;
    for (;;) {
        if (shared_.mailroom.is_cancelled(box_)) {
            return OMRALIB_ERR_CANCELLED;
        }
        delivery_.take_mail();
        const Status status = settle_ended();
        if (status != OMRALIB_RET_SUCCESS) {
            return status;
        }
        folding_.start();
        if (delivery_.tasks().empty()) {
            return OMRALIB_RET_SUCCESS;
        }
        if (shared_.clock.now() >= deadline_) {
            return OMRALIB_ERR_INVOKE_TIMEOUT;
        }
        if (!delivery_.send_next()) {
            rest();
        }
    }
}

Status Invocation::settle_ended() {
    Status status = OMRALIB_RET_SUCCESS;
    while (status == OMRALIB_RET_SUCCESS) {
        const std::optional<Task> task = delivery_.take_ended();
        if (!task) {
            break;
        }
        status = settle(*task);
    }
    return status;
}

Status Invocation::settle(const Task &task) {
    lacks_room_ = lacks_room_ || task.lacks_room;
    if (!task.is_fold) {
        return settle_part(task);
    }
    bool left_exceptions = false;
    const Status status = folding_.settle(task, left_exceptions);
    if (left_exceptions) {
        fold_exceptions_.push_back(task.exceptions_key);
    }
    return status;
}

Status Invocation::settle_part(const Task &task) {
    Part part{task.index, task.state == Task::State::completed, task.num_matched.value_or(0), 0,
              task.exceptions_key};
    if (part.completed) {
        part.num_successful = std::min<std::uint64_t>(task.num_successful, part.num_matched);
    }
    parts_.push_back(part);
    if (task.state == Task::State::lost && !task.num_matched) {
        /* No host has said how many objects have failed with it. */
        std::vector<Key> keys;
        const Status status = find(shared_.objects, task.share.selection, &task.share.part, keys,
                                   [this] { return check_for_end(); });
        parts_.back().num_matched = keys.size();
        return status;
    }
    if (!part.completed) {
        return OMRALIB_RET_SUCCESS;
    }
    shared_.figures.num_evaluated += part.num_matched;
    if (part.num_matched == 0) {
        return OMRALIB_RET_SUCCESS;
    }
    switch (shared_.temp_objects.look_for(task.results_key)) {
    case Presence::there:
        folding_.add({task.results_key, part.num_successful});
        break;
    case Presence::gone:
        break;
    case Presence::unknown:
        shared_.temp_objects.remove({task.results_key});
        return OMRALIB_ERR_UNKNOWN;
    }
    return OMRALIB_RET_SUCCESS;
}

/* Sleeps until there is something to do. */
void Invocation::rest() {
    const Millis now = shared_.clock.now();
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
    shared_.mailroom.wait(box_, until);
}

/* Keeps what is done from expiring before the slowest host is. */
void Invocation::renew() {
    delivery_.renew();
    folding_.renew();
    for (const Key &key : exceptions_keys()) {
        shared_.temp_objects.renew(key);
    }
}

/* Answer -------------------------------------------------------------------------------------- */

/* Those that there may be: of hosts in the order of their shares, then of folds. */
std::vector<Key> Invocation::exceptions_keys() {
    std::sort(parts_.begin(), parts_.end(),
              [](const Part &a, const Part &b) { return a.index < b.index; });
    std::vector<Key> keys;
    for (const Part &part : parts_) {
        if (part.completed && part.num_matched != 0) {
            keys.push_back(part.exceptions_key);
        }
    }
    keys.insert(keys.end(), fold_exceptions_.begin(), fold_exceptions_.end());
    return keys;
}

Status Invocation::answer(OMRA_INVOKE_RESULT &result_out) {
    OMRA_INVOKE_RESULT result{};
    result.reserved = OMRALIB_INDEX_OP_INVOKE;
    Status status = folding_.finish(result.results_key);
    if (status != OMRALIB_RET_SUCCESS) {
        return status;
    }
    std::uint64_t matched = 0;
    std::uint64_t successful = 0;
    bool has_host = false;
    for (const Part &part : parts_) {
        matched += part.num_matched;
        successful += part.num_successful;
        has_host = has_host || part.completed;
    }
    if (matched != 0 && !has_host) {
        return OMRALIB_ERR_NO_WORKER;
    }
    successful -= folding_.num_lost();
    result.num_successful = static_cast<ULONG>(successful);
    result.num_failed = static_cast<ULONG>(matched - successful);
    const std::vector<Key> keys = exceptions_keys();
    if (result.num_failed != 0) {
        status =
            join_exceptions(shared_.temp_objects, keys,
                            temp_timeout_m(order_.header.invoke_timeout), result.exceptions_key);
    } else {
        /* Whoever hears of no failure does not ask for exceptions. */
        shared_.temp_objects.remove(keys);
    }
    if (status != OMRALIB_RET_SUCCESS) {
        return status;
    }
    if (result.num_failed != 0 && is_null(result.exceptions_key) && lacks_room_) {
        return OMRALIB_ERR_NO_SPACE; /* else nobody could say why they have failed */
    }
    answered_ = true;
    result_out = result;
    return OMRALIB_RET_SUCCESS;
}

void Invocation::discard() {
    delivery_.stop();
    while (const std::optional<Task> task = delivery_.take_ended()) {
        if (task->is_fold) {
            folding_.discard(*task);
            shared_.temp_objects.remove({task->exceptions_key, task->results_key});
        } else if (task->state == Task::State::completed) {
            shared_.temp_objects.remove({task->exceptions_key, task->results_key});
        }
    }
    folding_.discard();
    for (const Part &part : parts_) {
        if (part.completed) {
            shared_.temp_objects.remove({part.exceptions_key});
        }
    }
    shared_.temp_objects.remove(fold_exceptions_);
}

/* Progress ------------------------------------------------------------------------------------ */

OMRALIB_PROGRESS Invocation::progress() const {
    OMRALIB_PROGRESS progress{};
    progress.num_failed = folding_.num_lost();
    for (const Part &part : parts_) {
        ++progress.num_hosts;
        ++progress.num_hosts_done;
        progress.num_matched += part.num_matched;
        progress.num_done += part.num_matched;
        progress.num_failed += part.num_matched - part.num_successful;
    }
    for (const Task &task : delivery_.tasks()) {
        if (task.is_fold) {
            continue;
        }
        RequestProgress its;
        if (task.state == Task::State::sent) {
            shared_.cluster.progress_of(task.host, task.request, its);
        }
        ++progress.num_hosts;
        progress.num_matched += task.num_matched.value_or(its.num_matched);
        progress.num_done += its.num_begun;
    }
    return progress;
}

void Invocation::report() {
    if (invoker_.progress != nullptr) {
        const OMRALIB_PROGRESS now = progress();
        invoker_.progress(&now, invoker_.progress_arg);
    }
}

} // namespace store
