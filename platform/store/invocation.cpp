#include "invocation.h"

#include <algorithm>
#include <random>
#include <vector>

#include "sys_util.h"

namespace store {

namespace {

/* Kinds of object in the reserved app id, told apart by the flags of their keys. */
constexpr unsigned char results_kind = 0x10;
constexpr unsigned char exceptions_kind = 0x11;

OMRA_OBJID random_id() {
    std::random_device source;
    OMRA_OBJID id{};
    for (ULONG &word : id.u32_comp) {
        word = source();
    }
    return id;
}

/* Why objects count as failed that no user function has seen. */
void trace_refusal(HostId host, std::uint32_t num_keys, const Reply &reply) {
    if (sys_trace_level < 0) {
        return;
    }
    if (reply.kind == Reply::Kind::host_gone) {
        Sys_trace_int("Omralib: host %u has gone; its %u object(s) count as failed.\n", host,
                      num_keys);
    } else {
        Sys_trace_int("Omralib: host %u refused its request (%d); its %u object(s) count as "
                      "failed.\n",
                      host, reply.refusal, num_keys);
    }
}

/* What one host is asked to do, and what has become of it. */
struct Part {
    enum class State { open, completed, failed };

    HostId host = 0;
    RequestId request = 0;
    std::uint32_t num_keys = 0;

    /* Guarded by the lock of Invocations. */
    State state = State::open;
    std::uint32_t num_successful = 0;
};

} // namespace

class Invocation {
public:
    Invocation(Invocations &room, const InvokeOrder &order) : room_(room), order_(order) {}
    Invocation(const Invocation &) = delete;
    Invocation &operator=(const Invocation &) = delete;
    ~Invocation() { withdraw_open_parts(); }

    Status plan();
    void deliver();
    Status wait();
    OMRA_INVOKE_RESULT answer();
    void remove_objects();

    /* Called under the lock of Invocations. */
    void note_reply(std::size_t index, const Reply &reply);
    void wake() { wake_.notify_all(); }

private:
    Status find_shares();
    std::shared_ptr<Request> make_request(std::vector<Key> keys) const;
    Key key_if_made(const Key &key) const;
    void withdraw_open_parts();

    Invocations &room_;
    const InvokeOrder &order_;

    /* Constant after plan(). */
    Millis deadline_ = never;
    Key results_key_{};
    Key exceptions_key_{};
    std::vector<Share> shares_; /* emptied by deliver() */

    /* The parts themselves stay where they are after deliver() has made them. */
    std::vector<Part> parts_;
    std::size_t num_open_ = 0; /* guarded by the lock of Invocations */
    std::condition_variable wake_;
};

/* Plan -------------------------------------------------------------------------------------------
 */

Status Invocation::plan() {
    if (order_.header.invoke_timeout != 0) {
        deadline_ = room_.clock_.now() + order_.header.invoke_timeout * millis_per_second;
    }
    const Status status = find_shares();
    if (status == OMRALIB_RET_SUCCESS) {
        /* All hosts of an invocation merge into the same two objects, under their locks. */
        results_key_ = room_.make_key(results_kind);
        exceptions_key_ = room_.make_key(exceptions_kind);
    }
    return status;
}

Status Invocation::find_shares() {
    const std::uint32_t event_app_id = order_.header.reserved2;
    Engine &engine = room_.engine_;
    const bool anyone = order_.is_invoke_once() && event_app_id == MGTI_APPID_INVOKE_ONCE;
    const std::vector<HostId> hosts =
        anyone ? engine.hosts_serving_any() : engine.hosts_serving(event_app_id);
    if (hosts.empty()) {
        return OMRALIB_ERR_NO_WORKER;
    }
    if (order_.is_invoke_once()) {
        shares_.push_back({hosts.front(), {Key{}}});
        return OMRALIB_RET_SUCCESS;
    }
    std::vector<Key> keys;
    const Status status = engine.find(order_.selection, keys);
    if (status == OMRALIB_RET_SUCCESS && !keys.empty()) {
        shares_ = engine.share_out(std::move(keys), hosts);
    }
    return status;
}

/* Deliver ----------------------------------------------------------------------------------------
 */

std::shared_ptr<Request> Invocation::make_request(std::vector<Key> keys) const {
    const OMRA_INDEX_HDR &header = order_.header;
    auto request = std::make_shared<Request>();
    request->id = room_.next_request_++;
    request->sender = room_.engine_.this_host();
    request->event_app_id = header.reserved2;
    request->params.app_id = header.app_id;
    request->params.invoke_op = header.invoke_op;
    request->params.merge_op = header.merge_op;
    request->params.num_keys = static_cast<int>(keys.size());
    request->params.invoke_timeout = header.invoke_timeout;
    request->params.svr_host_id = request->sender;
    request->params.params_key = header.params_key;
    request->params.results_key = results_key_;
    request->params.exceptions_key = exceptions_key_;
    request->params.immediate_params = header.immediate_params;
    request->keys = std::move(keys);
    return request;
}

void Invocation::deliver() {
    std::vector<std::shared_ptr<const Request>> requests;
    for (Share &share : shares_) {
        const auto num_keys = static_cast<std::uint32_t>(share.keys.size());
        requests.push_back(make_request(std::move(share.keys)));
        parts_.push_back({share.host, requests.back()->id, num_keys});
    }
    shares_.clear();
    {
        const std::lock_guard guard(room_.lock_);
        for (std::size_t i = 0; i < parts_.size(); ++i) {
            room_.waiting_.emplace(parts_[i].request, Invocations::Waiting{this, i});
            ++num_open_;
        }
    }
    /* The first replies may come while the last requests are still being sent. */
    for (std::size_t i = 0; i < parts_.size(); ++i) {
        room_.engine_.send(parts_[i].host, std::move(requests[i]));
    }
}

/* Wait -------------------------------------------------------------------------------------------
 */

void Invocation::note_reply(std::size_t index, const Reply &reply) {
    Part &part = parts_[index];
    if (reply.kind == Reply::Kind::completed) {
        part.state = Part::State::completed;
        part.num_successful = std::min(reply.num_successful, part.num_keys);
    } else {
        part.state = Part::State::failed;
        trace_refusal(part.host, part.num_keys, reply);
    }
    if (--num_open_ == 0) {
        wake();
    }
}

/* OMRALIB_ERR_INVOKE_TIMEOUT when some requests are still open at the deadline. */
Status Invocation::wait() {
    std::unique_lock lock(room_.lock_);
    while (num_open_ > 0 && room_.clock_.now() < deadline_) {
        room_.clock_.wait(lock, wake_, deadline_);
    }
    const bool all_answered = num_open_ == 0;
    lock.unlock();
    withdraw_open_parts();
    return all_answered ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_INVOKE_TIMEOUT;
}

/* From here on no reply reaches this invocation. */
void Invocation::withdraw_open_parts() {
    std::vector<const Part *> withdrawn;
    {
        const std::lock_guard guard(room_.lock_);
        for (Part &part : parts_) {
            if (room_.waiting_.erase(part.request) > 0) {
                part.state = Part::State::failed;
                withdrawn.push_back(&part);
            }
        }
        num_open_ = 0;
    }
    for (const Part *part : withdrawn) {
        room_.engine_.withdraw(part->host, part->request);
    }
}

/* Answer -----------------------------------------------------------------------------------------
 */

Key Invocation::key_if_made(const Key &key) const {
    return room_.engine_.exists(key) == OMRALIB_RET_SUCCESS ? key : Key{};
}

OMRA_INVOKE_RESULT Invocation::answer() {
    OMRA_INVOKE_RESULT result{};
    result.reserved = OMRALIB_INDEX_OP_INVOKE;
    bool any_completed = false;
    for (const Part &part : parts_) {
        any_completed |= part.state == Part::State::completed;
        result.num_successful += part.num_successful;
        result.num_failed += part.num_keys - part.num_successful;
    }
    if (any_completed) {
        result.results_key = key_if_made(results_key_);
        result.exceptions_key = key_if_made(exceptions_key_);
    } else if (!parts_.empty()) {
        remove_objects();
    }
    return result;
}

/* What hosts that did not finish have left is no result. */
void Invocation::remove_objects() {
    room_.engine_.remove(results_key_);
    room_.engine_.remove(exceptions_key_);
}

/* The room ---------------------------------------------------------------------------------------
 */

Invocations::Invocations(Engine &engine, Clock &clock)
    : engine_(engine), clock_(clock), process_id_(random_id()) {
    clock_.add_listener([this] {
        const std::lock_guard guard(lock_);
        for (auto &[request, waiting] : waiting_) {
            waiting.invocation->wake();
        }
    });
}

Key Invocations::make_key(unsigned char kind) {
    Key key{};
    key.app_id = reserved_app_id;
    key.flags = kind;
    key.ext_obj_id = process_id_;
    key.obj_id.u64_comp[0] = next_key_++;
    return key;
}

Status Invocations::run(const InvokeOrder &order, OMRA_INVOKE_RESULT &result_out) {
    Invocation invocation(*this, order);
    Status status = invocation.plan();
    if (status != OMRALIB_RET_SUCCESS) {
        return status;
    }
    invocation.deliver();
    status = invocation.wait();
    if (status == OMRALIB_RET_SUCCESS) {
        result_out = invocation.answer();
    } else {
        invocation.remove_objects();
    }
    ++num_finished_;
    return status;
}

Status Invocations::on_reply(const Reply &reply) {
    const std::lock_guard guard(lock_);
    const auto found = waiting_.find(reply.request);
    if (found == waiting_.end()) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    const Waiting waiting = found->second;
    waiting_.erase(found);
    waiting.invocation->note_reply(waiting.part, reply);
    return OMRALIB_RET_SUCCESS;
}

} // namespace store
