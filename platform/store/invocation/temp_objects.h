/* The objects that belong to invocations: results, exceptions, copies to merge into. Each has a
 * fresh key in the reserved app id. What is done to them here is all that the rooms of invocations
 * do to objects. */
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <span>

#include "engine/objects.h"

namespace store {

enum class Presence : std::uint8_t { there, gone, unknown };

class TempObjects {
public:
    explicit TempObjects(Objects &objects);
    TempObjects(const TempObjects &) = delete;
    TempObjects &operator=(const TempObjects &) = delete;

    Key make_key(TempKind kind);

    /* Looks again when the outcome of a look is unknown, a few times. */
    Presence look_for(const Key &key);

    /* As look_for(); OMRALIB_ERR_OBJ_NOT_FOUND, or OMRALIB_ERR_UNKNOWN after the last time. */
    Status read(const Key &key, Content &content_out);

    /* Into fresh keys: what is unknown is tried again with another one. */
    Status create(const Key &key, Bytes bytes, std::uint32_t timeout_m) {
        return objects_.create(key, {bytes, timeout_m, {}});
    }
    Status copy(const Key &from, const Key &to, std::uint32_t timeout_m) {
        return objects_.copy(from, to, timeout_m);
    }

    /* Starts the object's time-out anew. */
    void renew(const Key &key) { objects_.touch(key); }

    /* Null keys are passed over. What cannot be removed goes when its time-out has passed. Needs no
     * memory, so that an invocation that has none can still clean up. */
    void remove(std::span<const Key> keys);
    void remove(std::initializer_list<Key> keys) { remove({keys.begin(), keys.size()}); }

private:
    Objects &objects_;
    const OMRA_OBJID process_id_; /* random; keeps this process's keys from those of others */
    std::atomic<std::uint64_t> next_key_{1};
};

} // namespace store
