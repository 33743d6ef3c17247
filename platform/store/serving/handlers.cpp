/* Callbacks, and who has started to handle what. */
#include "serving/handlers.h"

#include <algorithm>

namespace store {

Status Handlers::set_callback(unsigned int kind, OMRALIB_CB callback) {
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
        return add_event_callback(callback.event_ext_cb);
    case OMRALIB_CB_INVOKE_EXT:
        invoke_ext_cb_ = callback.invoke_ext_cb;
        break;
    default:
        return OMRALIB_ERR_BAD_ARGS;
    }
    return OMRALIB_RET_SUCCESS;
}

Status Handlers::add_event_callback(OMRALIB_EVENT_EXT_CB callback) {
    for (auto &place : event_ext_cbs_) {
        OMRALIB_EVENT_EXT_CB found = nullptr;
        if (place.compare_exchange_strong(found, callback) || found == callback) {
            return OMRALIB_RET_SUCCESS;
        }
    }
    return OMRALIB_ERR_NO_SPACE;
}

Status Handlers::start(std::uint32_t event_app_id, const Guid &guid) {
    const Guard guard(lock_);
    if (has_stopped_) {
        return OMRALIB_ERR_NO_WORKER;
    }
    /* Made beforehand, so that nothing has changed when memory runs out. */
    std::map<std::uint32_t, std::vector<Guid>> changed;
    std::vector<Guid> &guids = changed[event_app_id];
    if (const auto found = serving_.find(event_app_id); found != serving_.end()) {
        guids = found->second;
    }
    if (std::find(guids.begin(), guids.end(), guid) == guids.end()) {
        guids.push_back(guid);
    }
    const Status status = cluster_.announce(event_app_id, true);
    serving_.erase(event_app_id);
    serving_.merge(changed);
    return status;
}

Status Handlers::stop(std::uint32_t event_app_id, const Guid &guid) {
    const Guard guard(lock_);
    const auto found = serving_.find(event_app_id);
    if (found == serving_.end()) {
        return OMRALIB_RET_SUCCESS;
    }
    std::erase(found->second, guid);
    if (!found->second.empty()) {
        return OMRALIB_RET_SUCCESS;
    }
    serving_.erase(found);
    return cluster_.announce(event_app_id, false);
}

bool Handlers::stop_all() {
    const Guard guard(lock_);
    for (; !serving_.empty(); serving_.erase(serving_.begin())) {
        cluster_.announce(serving_.begin()->first, false);
    }
    return !has_stopped_.exchange(true);
}

std::optional<Guid> Handlers::guid_for(std::uint32_t event_app_id) {
    const Guard guard(lock_);
    auto found = serving_.find(event_app_id);
    if (found == serving_.end() && event_app_id == MGTI_APPID_INVOKE_ONCE) {
        found = serving_.begin();
    }
    if (found == serving_.end()) {
        return std::nullopt;
    }
    return found->second.front();
}

int Handlers::call_invoke(const Guid &guid, OMRALIB_INVOKE_PARAMS params) const {
    const OMRALIB_INVOKE_EXT_CB ext = invoke_ext_cb_;
    const OMRALIB_INVOKE_CB plain = invoke_cb_;
    if (ext != nullptr) {
        return ext(guid.data(), &params);
    }
    if (plain != nullptr) {
        return plain(&params);
    }
    return OMRALIB_ERR_NO_WORKER;
}

void Handlers::call_event(const Key &key, unsigned int event_code) {
    const std::optional<Guid> guid = guid_for(key.app_id);
    if (!guid) {
        return;
    }
    for (const auto &place : event_ext_cbs_) {
        if (const OMRALIB_EVENT_EXT_CB ext = place) {
            ext(key, guid->data(), event_code);
        }
    }
    if (const OMRALIB_EVENT_CB plain = event_cb_) {
        plain(key, event_code);
    }
}

} // namespace store
