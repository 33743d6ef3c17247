/* The serving side of a host: the process's callbacks, the app ids that it handles, and the
 * requests that it has accepted and not yet completed.
 *
 *   engine --receive--> context made, callback called --accepted--> complete or flush --> reply
 *                                                     --refused---> reply
 *   engine --withdraw-> the context stays only to clean up after its late completion
 *
 * A request's results and exceptions objects are its own: when its reply does not count, they are
 * removed, so that nothing of a request that was given up reaches anyone.
 *
 * A request is noticed while it is watched or withdrawn. Reads by those who handle requests are
 * then compared with the open ones: they tell how far a watched request is, and a read for
 * withdrawn requests alone finds no object, so that their handlers drop what they have not begun.
 * While nothing is noticed, a read pays for one relaxed load. */
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <absl/container/flat_hash_map.h>

#include "engine/engine.h"

namespace store {

class Server final : public RequestReceiver, public EventReceiver {
public:
    explicit Server(Engine &engine) : engine_(engine) {}

    /* Operations of storlib.h, their arguments checked for NULL. */
    Status set_callback(unsigned int kind, OMRALIB_CB callback);
    void start(std::uint32_t event_app_id, const Guid &guid);
    void stop(std::uint32_t event_app_id, const Guid &guid);
    Status get_keys(std::uint32_t context, std::span<Key> keys_out);
    Status complete(std::uint32_t context, std::uint32_t num_successful, std::uint32_t num_failed);
    Status flush(std::uint32_t context);

    void receive(std::shared_ptr<const Request> request) override;
    void withdraw(HostId sender, RequestId request) override;
    std::uint32_t num_begun(HostId sender, RequestId request) override;
    void on_event(const Key &key, unsigned int event_code) override;

    /* True while reads are to be told to note_read(). */
    bool is_noticing() const { return num_noticed_.load(std::memory_order_relaxed) != 0; }

    /* A handle opened with `guid` reads `key`. False when the read is to find no object. */
    bool note_read(const Guid &guid, const Key &key);

private:
    using RequestPtr = std::shared_ptr<const Request>;

    /* A request that waits for its completion. */
    struct Open {
        RequestPtr request;
        Guid guid; /* of whoever handles it */
        bool withdrawn = false;
        std::vector<bool> begun{}; /* by key; of a watched request */
        std::uint32_t num_begun = 0;

        bool is_noticed() const { return request->watched || withdrawn; }
        bool is(HostId sender, RequestId id) const {
            return request->sender == sender && request->id == id;
        }
    };

    std::uint32_t add_context(RequestPtr request, const Guid &guid);
    std::optional<Open> take_context(std::uint32_t context);
    std::optional<Guid> guid_for(std::uint32_t event_app_id);
    int call_back(const Request &request, const Guid &guid, std::uint32_t context);
    void refuse(const Request &request, int code);
    void remove_objects(const Request &request);

    Engine &engine_;

    /* Self-synchronised; by kind of callback, 0 for none. */
    std::atomic<OMRALIB_EVENT_CB> event_cb_{nullptr};
    std::atomic<OMRALIB_INVOKE_CB> invoke_cb_{nullptr};
    std::atomic<OMRALIB_EVENT_EXT_CB> event_ext_cb_{nullptr};
    std::atomic<OMRALIB_INVOKE_EXT_CB> invoke_ext_cb_{nullptr};

    std::mutex serving_lock_; /* held while the engine is told, so that it hears of every change */
    absl::flat_hash_map<std::uint32_t, std::vector<Guid>> serving_; /* guarded by serving_lock_ */

    std::mutex contexts_lock_;                          /* a leaf: nothing is called under it */
    absl::flat_hash_map<std::uint32_t, Open> contexts_; /* guarded by contexts_lock_ */
    std::uint32_t last_context_ = 0;                    /* guarded by contexts_lock_ */
    std::atomic<std::uint32_t> num_noticed_{0};         /* of contexts_; written under the lock */
};

} // namespace store
