/* The objects that belong to invocations: results, exceptions, copies to merge into. Each has a
 * fresh key in the reserved app id. What is done to them here is all that the rooms of invocations
 * do to objects. */
#pragma once

#include <atomic>
#include <cstdint>

#include "engine/engine.h"

namespace store {

/* Kinds of temporary object, told apart by the flags of their keys. */
enum class TempKind : unsigned char { results = 0x10, exceptions = 0x11 };

class TempObjects {
public:
    explicit TempObjects(Engine &engine);
    TempObjects(const TempObjects &) = delete;
    TempObjects &operator=(const TempObjects &) = delete;

    Key make_key(TempKind kind);

    bool exists(const Key &key) { return engine_.exists(key) == OMRALIB_RET_SUCCESS; }
    void remove(const Key &key) { engine_.remove(key); }

    /* Starts the object's time-out anew. */
    void renew(const Key &key);

    Status read(const Key &key, ContentRef &content_out) {
        return engine_.read(key, true, content_out);
    }
    Status create(const Key &key, Bytes bytes, std::uint32_t timeout_m) {
        return engine_.create(key, {bytes, timeout_m, {}});
    }

private:
    Engine &engine_;
    const OMRA_OBJID process_id_; /* random; keeps this process's keys from those of others */
    std::atomic<std::uint64_t> next_key_{1};
};

} // namespace store
