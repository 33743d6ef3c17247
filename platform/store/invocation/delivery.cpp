/* What becomes of a task: replies, sending, withdrawing. */
#include "invocation/delivery.h"

#include <algorithm>

#include "sys_util.h"

namespace store {

namespace {

constexpr std::uint32_t max_refusals = 8; /* in a row, before another host is asked */
constexpr Millis first_pause = 10;
constexpr Millis last_pause = millis_per_second;

/* Before the next sending after so many refusals. */
Millis pause_after(std::uint32_t num_refusals) {
    return std::min(first_pause << (num_refusals - 1), last_pause);
}

bool contains(const std::vector<HostId> &hosts, const HostId &host) {
    return std::find(hosts.begin(), hosts.end(), host) != hosts.end();
}

/* For trace lines; 0 while it is not known. */
unsigned int num_objects(const Task &task) {
    return static_cast<unsigned int>(task.num_matched.value_or(0));
}

} // namespace

Task::Task(std::size_t its_index, Share its_share)
    : index(its_index), share(std::move(its_share)), host(share.host) {
    if (!share.is_part) {
        num_matched = share.keys.size();
    }
}

/* Replies ------------------------------------------------------------------------------------- */

Task *Delivery::find(RequestId request) {
    const auto found = std::find_if(tasks_.begin(), tasks_.end(), [&](const Task &task) {
        return task.state == Task::State::sent && task.request == request;
    });
    return found != tasks_.end() ? &*found : nullptr;
}

void Delivery::take_mail() {
    for (const Reply &reply : shared_.mailroom.take(box_)) {
        if (Task *task = find(reply.request)) {
            note(*task, reply);
        }
    }
    const Millis now = shared_.clock.now();
    for (Task &task : tasks_) {
        if (task.state == Task::State::sent && silent_at(task) <= now) {
            move_silent(task);
        }
    }
}

void Delivery::note(Task &task, const Reply &reply) {
    if (reply.num_matched) {
        task.num_matched = reply.num_matched;
    }
    switch (reply.kind) {
    case Reply::Kind::completed:
        task.state = Task::State::completed;
        task.num_successful = reply.num_successful;
        task.num_failed = reply.num_failed;
        task.lacks_room = reply.lacks_room;
        if (!task.is_fold) {
            longest_ = std::max(longest_, shared_.clock.now() - task.sent_at);
        }
        return;
    case Reply::Kind::refused:
        note_refusal(task, reply.refusal);
        return;
    case Reply::Kind::host_gone:
        if (sys_trace_level >= 0) {
            Sys_trace_int("Omralib: host %u has gone with a request for %u object(s).\n",
                          task.host.number, num_objects(task));
        }
        take_away(task);
        return;
    }
}

void Delivery::note_refusal(Task &task, int refusal) {
    ++shared_.figures.num_refusals;
    if (!is_for_the_moment(refusal) || task.num_refusals == max_refusals) {
        if (sys_trace_level >= 0) {
            Sys_trace_int("Omralib: host %u refused a request for %u object(s) for good (%d).\n",
                          task.host.number, num_objects(task), refusal);
        }
        take_away(task);
        return;
    }
    drop_objects(task);
    put_off(task);
}

void Delivery::put_off(Task &task) {
    task.state = Task::State::idle;
    task.send_at = shared_.clock.now() + pause_after(++task.num_refusals);
}

/* From its host, which is not to be asked again; for another. */
void Delivery::take_away(Task &task) {
    drop_objects(task);
    task.given_up.push_back(task.host);
    distrusted_.push_back(task.host);
    task.host = no_host;
    task.num_refusals = 0;
    task.state = Task::State::idle;
    task.send_at = shared_.clock.now();
}

void Delivery::drop_objects(const Task &task) {
    shared_.temp_objects.remove({task.results_key, task.exceptions_key});
}

/* Sending ------------------------------------------------------------------------------------- */

Status Delivery::find_hosts(std::vector<HostId> &hosts_out) const {
    const std::uint32_t event_app_id = order_.header.reserved2;
    const bool anyone = order_.is_invoke_once() && event_app_id == MGTI_APPID_INVOKE_ONCE;
    return anyone ? shared_.cluster.hosts_serving_any(hosts_out)
                  : shared_.cluster.hosts_serving(event_app_id, hosts_out);
}

std::size_t Delivery::load_of(const HostId &host) const {
    const auto is_its = [&](const Task &task) { return task.host == host && !task.is_over(); };
    return static_cast<std::size_t>(std::count_if(tasks_.begin(), tasks_.end(), is_its));
}

/* The one of `hosts` that has least to do among those that may still be asked, in turn when several
 * have; none when there is none. Hosts that have let another task down come last. */
HostId Delivery::choose_host(const Task &task, const std::vector<HostId> &hosts) const {
    HostId chosen = no_host;
    std::size_t least = 0;
    for (const HostId &host : hosts) {
        if (contains(task.given_up, host)) {
            continue;
        }
        const std::size_t load = load_of(host) + (contains(distrusted_, host) ? tasks_.size() : 0);
        const bool its_turn = chosen <= last_chosen_ && host > last_chosen_;
        if (chosen == no_host || load < least || (load == least && its_turn)) {
            chosen = host;
            least = load;
        }
    }
    return chosen;
}

Request Delivery::make_request(const Task &task) const {
    const OMRA_INDEX_HDR &header = order_.header;
    Request request;
    request.id = task.request;
    request.sender = shared_.cluster.this_host();
    request.event_app_id = header.reserved2;
    request.progress_is_wanted = progress_is_wanted_ && !task.is_fold;
    request.is_merge = task.is_fold;
    request.is_indivisible = order_.is_singleton;
    request.params_length = order_.params_length;
    request.app_id = header.app_id;
    request.invoke_op = header.invoke_op;
    request.merge_op = header.merge_op;
    request.timeout_s = header.invoke_timeout;
    request.immediate_params = task.is_fold ? UCHAR{0} : header.immediate_params;
    request.params_key = task.is_fold ? task.fold.source.key : header.params_key;
    request.results_key = task.results_key;
    request.exceptions_key = task.exceptions_key;
    request.share = task.share;
    request.share.host = task.host;
    return request;
}

/* Fresh keys, and for a fold a copy of the target: a fold that was begun cannot be told from one
 * that was finished, so every sending of it merges into a copy of its own. False when there is none
 * now; the task then waits, or is lost with its target. */
bool Delivery::prepare(Task &task) {
    task.results_key = shared_.temp_objects.make_key(TempKind::results);
    task.exceptions_key = shared_.temp_objects.make_key(TempKind::exceptions);
    const Status status =
        task.is_fold ? shared_.temp_objects.copy(task.fold.target.key, task.results_key,
                                                 temp_timeout_m(order_.header.invoke_timeout))
                     : OMRALIB_RET_SUCCESS;
    if (status == OMRALIB_RET_SUCCESS) {
        return true;
    }
    task.lacks_room = status == OMRALIB_ERR_NO_SPACE;
    /* It may have been made although the answer did not come. */
    shared_.temp_objects.remove({task.results_key});
    /* The store may have room for the copy later; a target that has gone does not come back. */
    if (task.num_refusals < max_refusals &&
        shared_.temp_objects.look_for(task.fold.target.key) != Presence::gone) {
        put_off(task);
    } else {
        task.state = Task::State::lost;
    }
    return false;
}

void Delivery::send(Task &task) {
    if (!prepare(task)) {
        return;
    }
    const Millis now = shared_.clock.now();
    task.request = shared_.next_request++;
    task.sent_at = now;
    task.may_be_silent_at = deadline_ == never ? never : now + (deadline_ - now + 1) / 2;
    shared_.figures.num_retries += task.num_sent == 0 ? 0 : 1;
    ++task.num_sent;
    Request request = make_request(task);
    shared_.mailroom.expect(task.request, box_);
    task.state = Task::State::sent;
    /* The reply may be in the box before this returns. */
    const Status status = shared_.cluster.send(std::move(request));
    if (status == OMRALIB_RET_SUCCESS || !shared_.mailroom.forget(task.request)) {
        return;
    }
    if (status == OMRALIB_ERR_UNKNOWN) {
        withdraw(task);
        take_away(task);
    } else {
        note_refusal(task, OMRALIB_INVOKE_NO_MEMORY);
    }
}

bool Delivery::send_next() {
    const Millis now = shared_.clock.now();
    const auto found = std::find_if(tasks_.begin(), tasks_.end(), [&](const Task &task) {
        return task.state == Task::State::idle && task.send_at <= now;
    });
    if (found == tasks_.end()) {
        return false;
    }
    Task &task = *found;
    if (task.host == no_host) {
        std::vector<HostId> hosts;
        if (find_hosts(hosts) != OMRALIB_RET_SUCCESS) {
            task.send_at = now + last_pause;
            return true;
        }
        task.host = last_chosen_ = choose_host(task, hosts);
    }
    if (task.host == no_host) {
        if (sys_trace_level >= 0) {
            Sys_trace_int("Omralib: no host takes a request for %u object(s); they count as "
                          "failed.\n",
                          num_objects(task));
        }
        task.state = Task::State::lost;
    } else {
        send(task);
    }
    return true;
}

/* Withdrawing --------------------------------------------------------------------------------- */

/* When the host of a task that has been sent may count as silent, as far as can be known now. */
Millis Delivery::silent_at(const Task &task) const {
    if (task.may_be_silent_at == never) {
        return never;
    }
    const Millis moment = std::max(task.may_be_silent_at, task.sent_at + 2 * longest_);
    return moment + longest_ < deadline_ ? moment : never;
}

/* Gives what a silent host has to one that has nothing to do. */
void Delivery::move_silent(Task &task) {
    std::vector<HostId> hosts;
    find_hosts(hosts);
    const HostId next = choose_host(task, hosts);
    const bool is_idle = next != no_host && load_of(next) == 0 && !contains(distrusted_, next);
    if (is_idle && shared_.mailroom.forget(task.request)) {
        withdraw(task);
        take_away(task);
        task.host = next;
    }
}

/* Its reply is expected no more. A host that does not hear of it does its work for nobody. */
void Delivery::withdraw(const Task &task) {
    shared_.cluster.withdraw(task.host, task.request);
}

void Delivery::stop() {
    for (const Task &task : tasks_) {
        if (task.state == Task::State::sent) {
            shared_.mailroom.forget(task.request);
        }
    }
    /* What has come before counts: its host has been told so. */
    for (const Reply &reply : shared_.mailroom.take(box_)) {
        Task *task = find(reply.request);
        if (task != nullptr && reply.kind == Reply::Kind::completed) {
            note(*task, reply);
        }
    }
    for (Task &task : tasks_) {
        if (task.state == Task::State::sent) {
            withdraw(task);
            drop_objects(task);
        }
        if (!task.is_over()) {
            task.state = Task::State::stopped;
        }
    }
}

/* The end of tasks ---------------------------------------------------------------------------- */

std::optional<Task> Delivery::take_ended() {
    const auto found =
        std::find_if(tasks_.begin(), tasks_.end(), [](const Task &task) { return task.is_over(); });
    if (found == tasks_.end()) {
        return std::nullopt;
    }
    std::optional<Task> task = std::move(*found);
    tasks_.erase(found);
    return task;
}

Millis Delivery::next_due() const {
    const Millis now = shared_.clock.now();
    Millis due = never;
    for (const Task &task : tasks_) {
        if (task.state == Task::State::idle) {
            due = std::min(due, task.send_at);
        } else if (silent_at(task) > now) {
            /* Afterwards it waits for a host with nothing to do, which only mail can bring. */
            due = std::min(due, silent_at(task));
        }
    }
    return due;
}

void Delivery::renew() {
    for (const Task &task : tasks_) {
        if (task.state == Task::State::sent) {
            shared_.cluster.renew(task.host, task.request);
        }
    }
}

} // namespace store
