/* Who handles requests and events on this host: the process's callbacks, and the app ids that its
 * handles have started to handle. */
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "engine/cluster.h"

namespace store {

/* All operations may be called by any thread. */
class Handlers {
public:
    explicit Handlers(Cluster &cluster) : cluster_(cluster) {}
    Handlers(const Handlers &) = delete;
    Handlers &operator=(const Handlers &) = delete;

    /* Several of OMRALIB_CB_EVENT_EXT are called one after the other, of the other kinds the last
     * one. OMRALIB_ERR_BAD_ARGS for a kind that there is not, or no callback; OMRALIB_ERR_NO_SPACE
     * when there are too many. */
    Status set_callback(unsigned int kind, OMRALIB_CB callback);

    /* What the cluster answers to being told; OMRALIB_ERR_NO_WORKER once stop_all() was called. */
    Status start(std::uint32_t event_app_id, const Guid &guid);
    Status stop(std::uint32_t event_app_id, const Guid &guid);

    /* For good. False when that has been done before. */
    bool stop_all();
    bool has_stopped() const { return has_stopped_; }

    /* Who handles a request of `event_app_id` here: the first that started. Whoever handles
     * anything handles invoke-once requests. */
    std::optional<Guid> guid_for(std::uint32_t event_app_id);

    /* What the callback answers, or OMRALIB_ERR_NO_WORKER when there is none to ask. */
    int call_invoke(const Guid &guid, OMRALIB_INVOKE_PARAMS params) const;

    /* An event that nobody handles is dropped: what the callback answers makes no difference. */
    void call_event(const Key &key, unsigned int event_code);

private:
    Status add_event_callback(OMRALIB_EVENT_EXT_CB callback);

    Cluster &cluster_;

    /* Self-synchronised. */
    std::atomic<OMRALIB_EVENT_CB> event_cb_{nullptr};
    std::atomic<OMRALIB_INVOKE_CB> invoke_cb_{nullptr};
    std::atomic<OMRALIB_INVOKE_EXT_CB> invoke_ext_cb_{nullptr};
    std::array<std::atomic<OMRALIB_EVENT_EXT_CB>, 8> event_ext_cbs_{}; /* the first ones are set */

    Mutex lock_; /* held while the cluster is told, so that it hears of every change in order */
    std::map<std::uint32_t, std::vector<Guid>> serving_ ABSL_GUARDED_BY(lock_);
    std::atomic<bool> has_stopped_{false}; /* set under lock_ */
};

} // namespace store
