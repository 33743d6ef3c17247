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

bool is_for_the_moment(int refusal) {
    return refusal == OMRALIB_INVOKE_NO_KEYS || refusal == OMRALIB_INVOKE_NO_MEMORY;
}

bool contains(const std::vector<HostId> &hosts, HostId host) {
    return std::find(hosts.begin(), hosts.end(), host) != hosts.end();
}

} // namespace

/* Replies ----------------------------------------------------------------------------------------
 */

Task *Delivery::find(RequestId request) const {
    const auto found = std::find_if(tasks_.begin(), tasks_.end(), [&](const Task *task) {
        return task->state == Task::State::sent && task->request == request;
    });
    return found != tasks_.end() ? *found : nullptr;
}

void Delivery::take_mail() {
    for (const Reply &reply : room_.mailroom.take(box_)) {
        if (Task *task = find(reply.request)) {
            note(*task, reply);
        }
    }
    const Millis now = room_.clock.now();
    for (Task *task : tasks_) {
        if (task->state == Task::State::sent && silent_at(*task) <= now) {
            move_silent(*task);
        }
    }
}

void Delivery::note(Task &task, const Reply &reply) {
    switch (reply.kind) {
    case Reply::Kind::completed:
        task.state = Task::State::completed;
        task.num_successful = reply.num_successful;
        task.num_failed = reply.num_failed;
        if (!task.is_fold()) {
            longest_ = std::max(longest_, room_.clock.now() - task.sent_at);
        }
        return;
    case Reply::Kind::refused:
        note_refusal(task, reply.refusal);
        return;
    case Reply::Kind::host_gone:
        if (sys_trace_level >= 0) {
            Sys_trace_int("Omralib: host %u has gone with a request for %u object(s).\n", task.host,
                          task.num_keys());
        }
        take_away(task);
        return;
    }
}

void Delivery::note_refusal(Task &task, int refusal) {
    ++room_.figures.num_refusals;
    if (!is_for_the_moment(refusal) || task.num_refusals == max_refusals) {
        if (sys_trace_level >= 0) {
            Sys_trace_int("Omralib: host %u refused a request for %u object(s) for good (%d).\n",
                          task.host, task.num_keys(), refusal);
        }
        take_away(task);
        return;
    }
    drop_objects(task);
    put_off(task);
}

void Delivery::put_off(Task &task) {
    task.state = Task::State::idle;
    task.due = room_.clock.now() + pause_after(++task.num_refusals);
}

/* From its host, which is not to be asked again; for another. */
void Delivery::take_away(Task &task) {
    drop_objects(task);
    task.given_up.push_back(task.host);
    distrusted_.push_back(task.host);
    task.host = 0;
    task.num_refusals = 0;
    task.state = Task::State::idle;
    task.due = room_.clock.now();
}

void Delivery::drop_objects(const Task &task) {
    room_.objects.remove(task.results_key);
    room_.objects.remove(task.exceptions_key);
}

/* Sending ----------------------------------------------------------------------------------------
 */

std::vector<HostId> Delivery::hosts() const {
    const std::uint32_t event_app_id = order_.header.reserved2;
    const bool anyone = order_.is_invoke_once() && event_app_id == MGTI_APPID_INVOKE_ONCE;
    return anyone ? room_.engine.hosts_serving_any() : room_.engine.hosts_serving(event_app_id);
}

std::size_t Delivery::load_of(HostId host) const {
    const auto is_its = [&](const Task *task) { return task->host == host && !task->is_over(); };
    return static_cast<std::size_t>(std::count_if(tasks_.begin(), tasks_.end(), is_its));
}

/* The host that has least to do among those that may still be asked, in turn when several have; 0
 * when there is none. Hosts that have let another task down come last. */
HostId Delivery::choose_host(const Task &task) {
    HostId chosen = 0;
    std::size_t least = 0;
    for (const HostId host : hosts()) {
        if (contains(task.given_up, host)) {
            continue;
        }
        const std::size_t load = load_of(host) + (contains(distrusted_, host) ? tasks_.size() : 0);
        const bool its_turn = chosen <= last_chosen_ && host > last_chosen_;
        if (chosen == 0 || load < least || (load == least && its_turn)) {
            chosen = host;
            least = load;
        }
    }
    return chosen;
}

/* A fold that was begun cannot be told from one that was finished, so every sending of it merges
 * into a copy of its own. False when the copy could not be made. */
bool Delivery::make_copy(const Task &task) {
    ContentRef content;
    return room_.objects.read(task.target, content) == OMRALIB_RET_SUCCESS &&
           room_.objects.create(task.results_key, content->bytes(), object_timeout_m()) ==
               OMRALIB_RET_SUCCESS;
}

std::shared_ptr<Request> Delivery::make_request(const Task &task) const {
    const OMRA_INDEX_HDR &header = order_.header;
    auto request = std::make_shared<Request>();
    request->id = task.request;
    request->sender = room_.engine.this_host();
    request->host = task.host;
    request->event_app_id = header.reserved2;
    request->watched = watched_ && !task.is_fold();
    request->keys = task.keys;
    request->params.app_id = header.app_id;
    request->params.invoke_op = header.invoke_op;
    request->params.merge_op = header.merge_op;
    request->params.num_keys = static_cast<int>(task.num_keys());
    request->params.invoke_timeout = header.invoke_timeout;
    request->params.svr_host_id = request->sender;
    request->params.params_key = task.is_fold() ? task.source : header.params_key;
    request->params.results_key = task.results_key;
    request->params.exceptions_key = task.exceptions_key;
    request->params.immediate_params = task.is_fold() ? UCHAR{0} : header.immediate_params;
    request->params.merge_request = task.is_fold() ? 1 : 0;
    return request;
}

void Delivery::send(Task &task) {
    task.results_key = room_.objects.make_key(TempKind::results);
    task.exceptions_key = room_.objects.make_key(TempKind::exceptions);
    if (task.is_fold() && !make_copy(task)) {
        /* The store may have room for the copy later; a target that has gone does not come back. */
        if (task.num_refusals < max_refusals && room_.objects.exists(task.target)) {
            put_off(task);
        } else {
            task.state = Task::State::lost;
        }
        return;
    }
    const Millis now = room_.clock.now();
    task.request = room_.next_request++;
    task.sent_at = now;
    task.due = deadline_ == never ? never : now + (deadline_ - now + 1) / 2;
    room_.figures.num_retries += task.num_sent == 0 ? 0 : 1;
    ++task.num_sent;
    auto request = make_request(task);
    room_.mailroom.expect(task.request, box_);
    task.state = Task::State::sent;
    /* The reply may be in the box before this returns. */
    room_.engine.send(task.host, std::move(request));
}

bool Delivery::send_next() {
    const Millis now = room_.clock.now();
    const auto found = std::find_if(tasks_.begin(), tasks_.end(), [&](const Task *task) {
        return task->state == Task::State::idle && task->due <= now;
    });
    if (found == tasks_.end()) {
        return false;
    }
    Task &task = **found;
    if (task.host == 0) {
        task.host = last_chosen_ = choose_host(task);
    }
    if (task.host == 0) {
        if (sys_trace_level >= 0) {
            Sys_trace_int("Omralib: no host takes a request for %u object(s); they count as "
                          "failed.\n",
                          task.num_keys());
        }
        task.state = Task::State::lost;
    } else {
        send(task);
    }
    return true;
}

/* Withdrawing ------------------------------------------------------------------------------------
 */

/* When the host of a task that has been sent may count as silent, as far as can be known now. */
Millis Delivery::silent_at(const Task &task) const {
    if (task.due == never) {
        return never;
    }
    const Millis moment = std::max(task.due, task.sent_at + 2 * longest_);
    return moment + longest_ < deadline_ ? moment : never;
}

/* Gives what a silent host has to one that has nothing to do. */
void Delivery::move_silent(Task &task) {
    const HostId next = choose_host(task);
    const bool is_idle = next != 0 && load_of(next) == 0 && !contains(distrusted_, next);
    if (is_idle && room_.mailroom.forget(task.request)) {
        withdraw(task);
        take_away(task);
        task.host = next;
    }
}

/* Its reply is expected no more. */
void Delivery::withdraw(Task &task) {
    room_.engine.withdraw(task.host, task.request);
}

void Delivery::stop() {
    for (const Task *task : tasks_) {
        if (task->state == Task::State::sent) {
            room_.mailroom.forget(task->request);
        }
    }
    /* What has come before counts: its host has been told so. */
    for (const Reply &reply : room_.mailroom.take(box_)) {
        Task *task = find(reply.request);
        if (task != nullptr && reply.kind == Reply::Kind::completed) {
            note(*task, reply);
        }
    }
    for (Task *task : tasks_) {
        if (task->state == Task::State::sent) {
            withdraw(*task);
            drop_objects(*task);
        }
        if (!task->is_over()) {
            task->state = Task::State::stopped;
        }
    }
}

/* The end of tasks -------------------------------------------------------------------------------
 */

Task *Delivery::take_ended() {
    const auto found = std::find_if(tasks_.begin(), tasks_.end(),
                                    [](const Task *task) { return task->is_over(); });
    if (found == tasks_.end()) {
        return nullptr;
    }
    Task *task = *found;
    tasks_.erase(found);
    return task;
}

Millis Delivery::next_due() const {
    const Millis now = room_.clock.now();
    Millis due = never;
    for (const Task *task : tasks_) {
        if (task->state == Task::State::idle) {
            due = std::min(due, task->due);
        } else if (silent_at(*task) > now) {
            /* Afterwards it waits for a host with nothing to do, which only mail can bring. */
            due = std::min(due, silent_at(*task));
        }
    }
    return due;
}

std::uint32_t Delivery::object_timeout_m() const {
    constexpr std::uint64_t grace_s = 60;
    constexpr std::uint64_t max_m = 0xFFFF;
    return static_cast<std::uint32_t>(
        std::min((order_.header.invoke_timeout + grace_s + 59) / 60, max_m));
}

} // namespace store
