/* From a request to its reply. */
#include "serving/serving.h"

#include <algorithm>
#include <new>
#include <utility>

#include "sys_util.h"

namespace store {

namespace {

/* What has no known outcome is tried so often. */
constexpr int max_tries = 3;

Reply reply_to(const Request &request, Reply::Kind kind) {
    Reply reply;
    reply.request = request.id;
    reply.to = request.sender;
    reply.from = request.share.host;
    reply.kind = kind;
    return reply;
}

/* What the callback gets, but for the context. */
OMRALIB_INVOKE_PARAMS params_of(const Chunk &chunk) {
    const Request &request = chunk.request->request;
    OMRALIB_INVOKE_PARAMS params{};
    params.app_id = request.app_id;
    params.invoke_op = request.invoke_op;
    params.merge_op = request.merge_op;
    params.num_keys = static_cast<int>(chunk.keys.keys.size());
    params.invoke_timeout = request.timeout_s;
    params.svr_host_id = request.sender.number;
    params.params_key = chunk.merges() ? chunk.source : request.params_key;
    params.results_key = chunk.results_key;
    params.exceptions_key = chunk.exceptions_key;
    params.immediate_params = chunk.merges() ? UCHAR{0} : request.immediate_params;
    params.merge_request = chunk.merges() ? 1 : 0;
    return params;
}

/* Whose pace is remembered. */
std::uint64_t function_of(const Request &request) {
    return std::uint64_t{request.event_app_id} << 32 | (request.invoke_op & UINT32_MAX);
}

} // namespace

/* Feeding ------------------------------------------------------------------------------------- */

void Serving::receive(Request request) {
    Reply reply = reply_to(request, Reply::Kind::refused);
    const std::optional<Guid> guid = handlers.guid_for(request.event_app_id);
    if (!guid) {
        reply.refusal = OMRALIB_ERR_NO_WORKER;
        send_reply(reply);
        return;
    }
    const HostId host = request.share.host;
    const bool is_part = request.share.is_part;
    Share share = std::exchange(request.share, {host, is_part, {}, {}, {}});
    const std::uint32_t window = paces_.window_of(function_of(request));
    const auto served =
        std::make_shared<ServedRequest>(std::move(request), std::move(share), *guid, window);
    if (served->open(objects_) != OMRALIB_RET_SUCCESS) {
        served->fail(OMRALIB_INVOKE_NO_KEYS);
    }
    if (!chunks.add(served)) {
        return;
    }
    feed(*served);
}

void Serving::go_on(const HostId &sender, RequestId request) {
    if (const std::shared_ptr<ServedRequest> served = chunks.find(sender, request)) {
        feed(*served);
    }
}

/* Hands out what there is room for. A long search is interrupted for other requests. */
void Serving::feed(ServedRequest &request) {
    constexpr int max_searches = 4;
    int num_searches = 0;
    for (;;) {
        std::shared_ptr<Chunk> chunk;
        ServedRequest::Step step = ServedRequest::Step::rest;
        try {
            step = request.next_step(chunks.num_readers(), clock_.now(), chunk);
            if (step == ServedRequest::Step::search && request.search() != OMRALIB_RET_SUCCESS) {
                request.fail(OMRALIB_INVOKE_NO_KEYS);
            }
        } catch (const std::bad_alloc &) {
            request.fail(OMRALIB_INVOKE_NO_MEMORY);
        }
        if (chunk != nullptr) {
            hand_out(request, chunk);
            continue;
        }
        if (step == ServedRequest::Step::search) {
            if (++num_searches % max_searches == 0 && call_back(request)) {
                return;
            }
            continue;
        }
        const ServedRequest::After after = request.rest();
        if (after != ServedRequest::After::feeding) {
            follow_up(request, after);
            return;
        }
    }
}

void Serving::hand_out(ServedRequest &request, const std::shared_ptr<Chunk> &chunk) {
    int answer = OMRALIB_INVOKE_NO_MEMORY;
    try {
        OMRALIB_INVOKE_PARAMS params = params_of(*chunk);
        params.context = chunks.hand_out(chunk);
        /* Looked for when it is out: what comes to stop it later finds it. */
        answer = handlers.has_stopped() ? OMRALIB_ERR_NO_WORKER
                                        : handlers.call_invoke(request.guid, params);
        /* One that was completed before the callback returned is past refusing. */
        if (answer == OMRALIB_INVOKE_ACCEPTED || chunks.take(params.context) == nullptr) {
            return;
        }
    } catch (const std::bad_alloc &) {
        /* There was no room for a context. */
    }
    request.put_back(chunk, answer);
}

bool Serving::call_back(const ServedRequest &request) {
    return cluster_.call_back(request.request.share.host, request.request.sender,
                              request.request.id) == OMRALIB_RET_SUCCESS;
}

/* What finishing came to, else success. */
Status Serving::follow_up(ServedRequest &request, ServedRequest::After after) {
    if (after == ServedRequest::After::feeding && !call_back(request)) {
        request.fail(OMRALIB_INVOKE_NO_MEMORY);
        after = request.rest();
    }
    return after == ServedRequest::After::finishing ? finish(request) : OMRALIB_RET_SUCCESS;
}

void Serving::renew(const HostId &sender, RequestId request) {
    if (const std::shared_ptr<ServedRequest> served = chunks.find(sender, request)) {
        served->for_each_results_key([&](const Key &key) { objects_.touch(key); });
    }
}

/* Chunks: what handlers ask and say ----------------------------------------------------------- */

Status Serving::get_keys(std::uint32_t context, std::span<Key> keys_out) {
    const std::shared_ptr<Chunk> chunk = chunks.find(context);
    if (chunk == nullptr || keys_out.size() != chunk->keys.keys.size()) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    std::copy(chunk->keys.keys.begin(), chunk->keys.keys.end(), keys_out.begin());
    return OMRALIB_RET_SUCCESS;
}

/* The exceptions of a chunk, whose object goes. */
std::vector<std::byte> Serving::take_exceptions(const Chunk &chunk, bool has_some) {
    std::vector<std::byte> exceptions;
    Content content;
    Status status = has_some ? OMRALIB_ERR_UNKNOWN : OMRALIB_ERR_OBJ_NOT_FOUND;
    for (int i = 0; i < max_tries && status == OMRALIB_ERR_UNKNOWN; ++i) {
        status = objects_.read(chunk.exceptions_key, false, content);
    }
    try {
        exceptions.assign(content.bytes().begin(), content.bytes().end());
    } catch (const std::bad_alloc &) {
        status = OMRALIB_ERR_UNKNOWN;
    }
    if (status == OMRALIB_ERR_UNKNOWN) {
        chunk.request->lacks_room = true;
    }
    objects_.remove(chunk.exceptions_key);
    return exceptions;
}

Status Serving::complete(std::uint32_t context, std::uint32_t num_successful,
                         std::uint32_t num_failed, const HandleNote &note) {
    const std::shared_ptr<Chunk> chunk = chunks.take(context);
    if (chunk == nullptr) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    ServedRequest &request = *chunk->request;
    const bool is_withdrawn = request.withdrawn;
    ChunkEnd end{num_successful, num_failed, 0, {}};
    if (chunk->merges() && !chunk->has_merged) {
        /* Its handler counts it as done although the user's function failed. */
        end = {0, 1, 0, {}};
    }
    if (!chunk->is_alone) {
        if (note.is(HandleNote::Deed::left, chunk->results_key)) {
            /* So it does here: the others' results stand without those of this chunk. */
            end.num_failed += std::exchange(end.num_successful, 0);
        } else if (note.is(HandleNote::Deed::written, chunk->results_key)) {
            end.results_length = note.length;
        }
        end.exceptions = take_exceptions(*chunk, end.num_failed != 0);
        if (chunk->merges()) {
            objects_.remove(chunk->source);
        }
    }
    const Status status = follow_up(request, request.end(*chunk, std::move(end), clock_.now()));
    return is_withdrawn ? OMRALIB_ERR_BAD_ARGS : status;
}

Status Serving::flush(std::uint32_t context) {
    const std::shared_ptr<Chunk> chunk = chunks.take(context);
    if (chunk == nullptr) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    ServedRequest &request = *chunk->request;
    const bool is_withdrawn = request.withdrawn;
    objects_.remove(chunk->exceptions_key);
    Status status = OMRALIB_RET_SUCCESS;
    if (chunk->is_alone) {
        objects_.remove(chunk->results_key);
        /* A merge request has no keys, but it has failed. */
        const auto num_keys = static_cast<std::uint32_t>(chunk->keys.keys.size());
        const ChunkEnd end{0, std::max(1u, num_keys), 0, {}};
        status = follow_up(request, request.end(*chunk, end, clock_.now()));
    } else {
        /* Whether its results are among those of the others, nobody knows. */
        status = follow_up(request, request.give_up(*chunk));
    }
    return is_withdrawn ? OMRALIB_RET_SUCCESS : status;
}

/* The end of a request ------------------------------------------------------------------------ */

/* False when they cannot be stored. */
bool Serving::store_exceptions(const Request &request, Bytes exceptions) {
    if (exceptions.empty()) {
        return true;
    }
    const Bytes stored = exceptions.first(std::min(exceptions.size(), max_exceptions_bytes));
    Status status = OMRALIB_ERR_UNKNOWN;
    for (int i = 0; i < max_tries && status == OMRALIB_ERR_UNKNOWN; ++i) {
        status = objects_.create(request.exceptions_key,
                                 {stored, temp_timeout_m(request.timeout_s), {}});
    }
    return status == OMRALIB_RET_SUCCESS || status == OMRALIB_ERR_OBJ_EXISTS;
}

/* Once, when nothing of it is out. */
Status Serving::finish(ServedRequest &request) {
    chunks.remove(request);
    if (request.withdrawn) {
        remove_objects(request);
        return OMRALIB_ERR_BAD_ARGS;
    }
    const ServedRequest::Outcome outcome = request.take_outcome();
    Reply reply = reply_to(request.request, Reply::Kind::completed);
    if (outcome.has_failed) {
        reply.kind = Reply::Kind::refused;
        reply.refusal = outcome.refusal;
        remove_objects(request);
    } else {
        paces_.remember(function_of(request.request), outcome.window);
        bool has_room = false;
        try {
            has_room = store_exceptions(request.request, outcome.exceptions);
        } catch (const std::bad_alloc &) {
            /* They are lost, which the sender is told. */
        }
        if (request.request.share.is_part) {
            reply.num_matched = outcome.num_matched;
        }
        reply.num_successful = static_cast<std::uint32_t>(outcome.num_successful);
        reply.num_failed = static_cast<std::uint32_t>(outcome.num_failed);
        reply.lacks_room = request.lacks_room || !has_room;
    }
    const Status status = send_reply(reply);
    /* What may count stays, until somebody takes it or its time is over. */
    if (status != OMRALIB_RET_SUCCESS && status != OMRALIB_ERR_UNKNOWN) {
        remove_objects(request);
    }
    return status;
}

/* Success: it counts. OMRALIB_ERR_UNKNOWN: nobody can say. Anything else: it does not. */
Status Serving::send_reply(const Reply &reply) {
    Status status = cluster_.reply(reply);
    const bool was_unknown = status == OMRALIB_ERR_UNKNOWN;
    for (int i = 1; i < max_tries && status == OMRALIB_ERR_UNKNOWN; ++i) {
        status = cluster_.reply(reply);
    }
    /* That nobody waits for it now may be because the first one arrived. */
    return was_unknown && status != OMRALIB_RET_SUCCESS ? OMRALIB_ERR_UNKNOWN : status;
}

void Serving::stop_all() {
    if (handlers.stop_all()) {
        Sys_trace_int(
            "Omralib: this process takes no more requests: a thread for them could not be "
            "started, or had no handle.\n");
    }
    while (const std::shared_ptr<ServedRequest> request = chunks.withdraw_one()) {
        send_reply(reply_to(request->request, Reply::Kind::host_gone));
    }
}

void Serving::remove_objects(ServedRequest &request) {
    request.for_each_results_key([&](const Key &key) { objects_.remove(key); });
    objects_.remove(request.request.exceptions_key);
}

} // namespace store
