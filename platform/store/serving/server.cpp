#include "serving/server.h"

#include <algorithm>

namespace store {

/* Callbacks and app ids --------------------------------------------------------------------------
 */

Status Server::set_callback(unsigned int kind, OMRALIB_CB callback) {
    if (callback.event_cb == nullptr) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    switch (kind) {
    case OMRALIB_CB_EVENT:
        event_cb_ = callback.event_cb;
        break;
    case OMRALIB_CB_INVOKE:
        invoke_cb_ = callback.invoke_cb;
        break;
    case OMRALIB_CB_EVENT_EXT:
        event_ext_cb_ = callback.event_ext_cb;
        break;
    case OMRALIB_CB_INVOKE_EXT:
        invoke_ext_cb_ = callback.invoke_ext_cb;
        break;
    default:
        return OMRALIB_ERR_BAD_ARGS;
    }
    return OMRALIB_RET_SUCCESS;
}

void Server::start(std::uint32_t event_app_id, const Guid &guid) {
    const std::lock_guard guard(serving_lock_);
    std::vector<Guid> &guids = serving_[event_app_id];
    if (std::find(guids.begin(), guids.end(), guid) == guids.end()) {
        guids.push_back(guid);
    }
    engine_.announce(event_app_id, true);
}

void Server::stop(std::uint32_t event_app_id, const Guid &guid) {
    const std::lock_guard guard(serving_lock_);
    const auto found = serving_.find(event_app_id);
    if (found == serving_.end()) {
        return;
    }
    std::erase(found->second, guid);
    if (found->second.empty()) {
        serving_.erase(found);
        engine_.announce(event_app_id, false);
    }
}

/* Who handles a request of `event_app_id` here: the first that started. Whoever handles anything
 * handles invoke-once requests. */
std::optional<Guid> Server::guid_for(std::uint32_t event_app_id) {
    const std::lock_guard guard(serving_lock_);
    auto found = serving_.find(event_app_id);
    if (found == serving_.end() && event_app_id == MGTI_APPID_INVOKE_ONCE) {
        found = serving_.begin();
    }
    if (found == serving_.end()) {
        return std::nullopt;
    }
    return found->second.front();
}

/* Requests ---------------------------------------------------------------------------------------
 */

std::uint32_t Server::add_context(RequestPtr request, const Guid &guid) {
    Open open{std::move(request), guid};
    if (open.request->watched && open.request->keys != nullptr) {
        open.begun.resize(open.request->keys->size());
    }
    const std::lock_guard guard(contexts_lock_);
    do {
        ++last_context_;
    } while (last_context_ == 0 || contexts_.contains(last_context_));
    const bool noticed = open.is_noticed();
    contexts_.emplace(last_context_, std::move(open));
    num_noticed_ += noticed ? 1 : 0;
    return last_context_;
}

/* Ends a context; exactly one of those who try gets it. */
std::optional<Server::Open> Server::take_context(std::uint32_t context) {
    const std::lock_guard guard(contexts_lock_);
    const auto found = contexts_.find(context);
    if (found == contexts_.end()) {
        return std::nullopt;
    }
    Open open = std::move(found->second);
    contexts_.erase(found);
    num_noticed_ -= open.is_noticed() ? 1 : 0;
    return open;
}

/* What the callback answers, or a refusal when there is none to ask. */
int Server::call_back(const Request &request, const Guid &guid, std::uint32_t context) {
    const OMRALIB_INVOKE_EXT_CB ext = invoke_ext_cb_;
    const OMRALIB_INVOKE_CB plain = invoke_cb_;
    OMRALIB_INVOKE_PARAMS params = request.params;
    params.context = context;
    if (ext != nullptr) {
        return ext(guid.data(), &params);
    }
    if (plain != nullptr) {
        return plain(&params);
    }
    return OMRALIB_ERR_NO_WORKER;
}

void Server::receive(RequestPtr request) {
    const std::optional<Guid> guid = guid_for(request->event_app_id);
    if (!guid) {
        refuse(*request, OMRALIB_ERR_NO_WORKER);
        return;
    }
    const std::uint32_t context = add_context(request, *guid);
    const int answer = call_back(*request, *guid, context);
    /* A request that was completed before the callback returned is past refusing. */
    if (answer != OMRALIB_INVOKE_ACCEPTED && take_context(context)) {
        refuse(*request, answer);
    }
}

void Server::refuse(const Request &request, int code) {
    Reply reply;
    reply.request = request.id;
    reply.to = request.sender;
    reply.kind = Reply::Kind::refused;
    reply.refusal = code;
    engine_.reply(reply);
}

void Server::withdraw(HostId sender, RequestId request) {
    const std::lock_guard guard(contexts_lock_);
    for (auto &[context, open] : contexts_) {
        if (open.is(sender, request)) {
            num_noticed_ += open.is_noticed() ? 0 : 1;
            open.withdrawn = true;
            return;
        }
    }
}

std::uint32_t Server::num_begun(HostId sender, RequestId request) {
    const std::lock_guard guard(contexts_lock_);
    for (const auto &[context, open] : contexts_) {
        if (open.is(sender, request)) {
            return open.num_begun;
        }
    }
    return 0;
}

/* Whoever serves several hosts may read an object for a withdrawn request and for the one that has
 * taken its place: the first read is taken for that of the withdrawn one, which came first. */
bool Server::note_read(const Guid &guid, const Key &key) {
    if (guid == Guid{}) {
        return true;
    }
    bool is_withdrawn = false;
    bool is_wanted = false;
    Open *reader = nullptr;
    std::size_t index = 0;
    const std::lock_guard guard(contexts_lock_);
    for (auto &[context, open] : contexts_) {
        if (open.request->keys == nullptr || open.guid != guid) {
            continue;
        }
        const std::vector<Key> &keys = *open.request->keys;
        const auto found = std::lower_bound(keys.begin(), keys.end(), key, KeyLess());
        if (found == keys.end() || order_of(*found, key) != 0) {
            continue;
        }
        (open.withdrawn ? is_withdrawn : is_wanted) = true;
        const auto i = static_cast<std::size_t>(found - keys.begin());
        if (!open.begun.empty() && !open.begun[i] && (reader == nullptr || open.withdrawn)) {
            reader = &open;
            index = i;
        }
    }
    if (reader != nullptr) {
        reader->begun[index] = true;
        ++reader->num_begun;
    }
    return is_wanted || !is_withdrawn;
}

Status Server::get_keys(std::uint32_t context, std::span<Key> keys_out) {
    RequestPtr request;
    {
        const std::lock_guard guard(contexts_lock_);
        const auto found = contexts_.find(context);
        if (found == contexts_.end()) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        request = found->second.request;
    }
    const std::size_t num_keys = request->keys != nullptr ? request->keys->size() : 0;
    if (keys_out.size() != num_keys) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    if (num_keys != 0) {
        std::copy(request->keys->begin(), request->keys->end(), keys_out.begin());
    }
    return OMRALIB_RET_SUCCESS;
}

Status Server::complete(std::uint32_t context, std::uint32_t num_successful,
                        std::uint32_t num_failed) {
    const std::optional<Open> open = take_context(context);
    if (!open) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    Reply reply;
    reply.request = open->request->id;
    reply.to = open->request->sender;
    reply.num_successful = num_successful;
    reply.num_failed = num_failed;
    const Status status = open->withdrawn ? OMRALIB_ERR_BAD_ARGS : engine_.reply(reply);
    if (status != OMRALIB_RET_SUCCESS) {
        remove_objects(*open->request);
    }
    return status;
}

Status Server::flush(std::uint32_t context) {
    const std::optional<Open> open = take_context(context);
    if (!open) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    remove_objects(*open->request);
    if (open->withdrawn) {
        return OMRALIB_RET_SUCCESS;
    }
    Reply reply;
    reply.request = open->request->id;
    reply.to = open->request->sender;
    /* A merge request has no keys, but it has failed. */
    reply.num_failed = std::max(1u, static_cast<std::uint32_t>(open->request->params.num_keys));
    return engine_.reply(reply);
}

void Server::remove_objects(const Request &request) {
    engine_.remove(request.params.results_key);
    engine_.remove(request.params.exceptions_key);
}

/* Events -----------------------------------------------------------------------------------------
 */

/* An event that nobody handles is dropped: what the callback answers makes no difference. */
void Server::on_event(const Key &key, unsigned int event_code) {
    const std::optional<Guid> guid = guid_for(key.app_id);
    const OMRALIB_EVENT_EXT_CB ext = event_ext_cb_;
    const OMRALIB_EVENT_CB plain = event_cb_;
    if (guid && ext != nullptr) {
        ext(key, guid->data(), event_code);
    } else if (guid && plain != nullptr) {
        plain(key, event_code);
    }
}

} // namespace store
