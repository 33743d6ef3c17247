/* From a request to its reply. */
#include "serving/serving.h"

#include <algorithm>
#include <array>
#include <utility>

#include "sys_util.h"

namespace store {

namespace {

/* A reply whose outcome is unknown is given again so many times. */
constexpr int max_replies = 3;

Reply reply_to(const Request &request, Reply::Kind kind) {
    Reply reply;
    reply.request = request.id;
    reply.to = request.sender;
    reply.from = request.share.host;
    reply.kind = kind;
    return reply;
}

/* What the callback gets, but for the context. */
OMRALIB_INVOKE_PARAMS params_of(const OpenRequest &open) {
    const Request &request = open.request;
    OMRALIB_INVOKE_PARAMS params{};
    params.app_id = request.app_id;
    params.invoke_op = request.invoke_op;
    params.merge_op = request.merge_op;
    params.num_keys = static_cast<int>(open.keys.size());
    params.invoke_timeout = request.timeout_s;
    params.svr_host_id = request.sender.number;
    params.params_key = request.params_key;
    params.results_key = request.results_key;
    params.exceptions_key = request.exceptions_key;
    params.immediate_params = request.immediate_params;
    params.merge_request = request.is_merge ? 1 : 0;
    return params;
}

/* The keys of a share, found here when it is a part of the key space. */
Status take_keys(Objects &objects, Share &share, const SearchCheck &check,
                 std::vector<Key> &keys_out) {
    if (share.is_part) {
        return find(objects, share.selection, &share.part, keys_out, check);
    }
    keys_out = std::move(share.keys);
    return OMRALIB_RET_SUCCESS;
}

} // namespace

void Serving::receive(Request request) {
    Reply reply = reply_to(request, Reply::Kind::refused);
    const std::optional<Guid> guid = handlers.guid_for(request.event_app_id);
    if (!guid) {
        reply.refusal = OMRALIB_ERR_NO_WORKER;
        send_reply(reply);
        return;
    }
    std::vector<Key> keys;
    const auto check = [&] {
        return requests.is_withdrawn(request.sender, request.id) ? OMRALIB_ERR_CANCELLED
                                                                 : OMRALIB_RET_SUCCESS;
    };
    if (take_keys(objects_, request.share, check, keys) != OMRALIB_RET_SUCCESS) {
        if (requests.forget_withdrawn(request.sender, request.id)) {
            return;
        }
        reply.refusal = OMRALIB_INVOKE_NO_KEYS;
        send_reply(reply);
        return;
    }
    if (request.share.is_part) {
        reply.num_matched = keys.size();
        if (keys.empty()) {
            reply.kind = Reply::Kind::completed;
            send_reply(reply);
            return;
        }
    }
    const auto open = std::make_shared<OpenRequest>(std::move(request), std::move(keys), *guid);
    OMRALIB_INVOKE_PARAMS params = params_of(*open);
    params.context = requests.add(open);
    if (params.context == 0) {
        return;
    }
    /* Looked for when it is among the open requests: what comes to stop them later finds it. */
    reply.refusal =
        handlers.has_stopped() ? OMRALIB_ERR_NO_WORKER : handlers.call_invoke(*guid, params);
    /* A request that was completed before the callback returned is past refusing. */
    if (reply.refusal != OMRALIB_INVOKE_ACCEPTED && requests.take(params.context)) {
        send_reply(reply);
    }
}

/* Success: it counts. OMRALIB_ERR_UNKNOWN: nobody can say. Anything else: it does not. */
Status Serving::send_reply(const Reply &reply) {
    Status status = cluster_.reply(reply);
    const bool was_unknown = status == OMRALIB_ERR_UNKNOWN;
    for (int i = 1; i < max_replies && status == OMRALIB_ERR_UNKNOWN; ++i) {
        status = cluster_.reply(reply);
    }
    /* That nobody waits for it now may be because the first one arrived. */
    return was_unknown && status != OMRALIB_RET_SUCCESS ? OMRALIB_ERR_UNKNOWN : status;
}

Status Serving::get_keys(std::uint32_t context, std::span<Key> keys_out) {
    const std::shared_ptr<OpenRequest> open = requests.find(context);
    if (open == nullptr || keys_out.size() != open->keys.size()) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    std::copy(open->keys.begin(), open->keys.end(), keys_out.begin());
    return OMRALIB_RET_SUCCESS;
}

Status Serving::complete(std::uint32_t context, std::uint32_t num_successful,
                         std::uint32_t num_failed) {
    const std::shared_ptr<OpenRequest> open = requests.take(context);
    if (open == nullptr) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    Reply reply = reply_to(open->request, Reply::Kind::completed);
    if (open->request.share.is_part) {
        reply.num_matched = open->keys.size();
    }
    reply.num_successful = num_successful;
    reply.num_failed = num_failed;
    reply.lacks_room = open->lacks_room;
    if (open->request.is_merge && !open->has_merged) {
        /* Its handler counts it as done although the user's function failed. */
        reply.num_successful = 0;
        reply.num_failed = 1;
    }
    const Status status = open->withdrawn ? OMRALIB_ERR_BAD_ARGS : send_reply(reply);
    /* What may count stays, until somebody takes it or its time is over. */
    if (status != OMRALIB_RET_SUCCESS && status != OMRALIB_ERR_UNKNOWN) {
        remove_objects(open->request);
    }
    return status;
}

Status Serving::flush(std::uint32_t context) {
    const std::shared_ptr<OpenRequest> open = requests.take(context);
    if (open == nullptr) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    remove_objects(open->request);
    if (open->withdrawn) {
        return OMRALIB_RET_SUCCESS;
    }
    Reply reply = reply_to(open->request, Reply::Kind::completed);
    if (open->request.share.is_part) {
        reply.num_matched = open->keys.size();
    }
    /* A merge request has no keys, but it has failed. */
    reply.num_failed = std::max(1u, static_cast<std::uint32_t>(open->keys.size()));
    return send_reply(reply);
}

void Serving::stop_all() {
    if (handlers.stop_all()) {
        Sys_trace_int(
            "Omralib: this process takes no more requests: a thread for them could not be "
            "started, or had no handle.\n");
    }
    while (const std::shared_ptr<OpenRequest> open = requests.withdraw_one()) {
        send_reply(reply_to(open->request, Reply::Kind::host_gone));
    }
}

void Serving::remove_objects(const Request &request) {
    const std::array keys{request.results_key, request.exceptions_key};
    std::array<Status, keys.size()> statuses{};
    objects_.remove_many(keys, statuses);
}

} // namespace store
