/* The requests that this host has taken on and not yet finished, their chunks that are handed out,
 * and what reads have to do with them.
 *
 * Whoever handles requests reads the objects of a chunk mostly in their order. So every reader has
 * a cursor: the chunk in which its last read was, and where. A read that goes on there costs a
 * comparison, and the object may be at hand; one that does not is looked for in the chunks that are
 * out. Either way it is known which object of which request is begun: that tells how far a request
 * is, and a read for withdrawn requests alone is to find no object, so that their handlers drop
 * what they have not begun.
 *
 * A cursor keeps the chunk in memory in which it is; its reader leaves it when it reads something
 * else, or completes a chunk. */
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "engine/cluster.h"
#include "serving/served_request.h"

namespace store {

/* Where a reader is; belongs to one thread at a time. */
class ReadCursor {
public:
    /* Nothing that was read through the chunk is in use any more. */
    void leave() { chunk_ = nullptr; }

private:
    friend class OpenChunks;

    std::shared_ptr<Chunk> chunk_;
    std::size_t place_ = 0; /* in its keys: behind the last one read */
    bool is_counted_ = false;
};

/* All operations may be called by any thread. */
class OpenChunks {
public:
    OpenChunks() = default;
    OpenChunks(const OpenChunks &) = delete;
    OpenChunks &operator=(const OpenChunks &) = delete;
    ~OpenChunks();

    /* Requests -------------------------------------------------------------------------------- */

    /* False when it was withdrawn before it came. Throws std::bad_alloc. */
    bool add(const std::shared_ptr<ServedRequest> &request);
    void remove(const ServedRequest &request);

    /* nullptr when it is not here. */
    std::shared_ptr<ServedRequest> find(const HostId &sender, RequestId id);

    /* A withdrawal that comes before its request waits for it. */
    void withdraw(const HostId &sender, RequestId id);

    /* As if one that has not been withdrawn were; nullptr when there is none. */
    std::shared_ptr<ServedRequest> withdraw_one();

    RequestProgress progress_of(const HostId &sender, RequestId id);

    /* Chunks ---------------------------------------------------------------------------------- */

    /* A context that names the chunk from now on, never 0. Throws std::bad_alloc. */
    std::uint32_t hand_out(const std::shared_ptr<Chunk> &chunk);

    /* Ends a context; exactly one of those who try gets the chunk, the others nullptr. */
    std::shared_ptr<Chunk> take(std::uint32_t context);

    /* That of a context which is open; nullptr: it is not. */
    std::shared_ptr<Chunk> find(std::uint32_t context);

    /* The object at `key` has new bytes: if it is what a chunk merges into, that has happened. */
    void note_update(const Key &key);

    /* There was no room for the object at `key`: if it is one that a request leaves, its sender is
     * to know. */
    void note_no_room(const Key &key);

    /* Reads ----------------------------------------------------------------------------------- */

    /* Readers that have read for a chunk, and not gone. */
    std::size_t num_readers() const { return num_readers_.load(std::memory_order_relaxed); }

    enum class Found : std::uint8_t {
        nothing,   /* nobody asks for the object here: it is to be read */
        at_hand,   /* `content_out` has it, as long as the cursor stays where it is */
        withdrawn, /* it is to be taken for gone */
    };

    /* Somebody who handles requests for `guid` reads `key`, with nothing pending. */
    Found read(const Guid &guid, const Key &key, ReadCursor &cursor, Content &content_out);

    /* The reader reads no more. */
    void forget(ReadCursor &cursor);

private:
    static Found read_here(ReadCursor &cursor, Content &content_out);
    Found read_elsewhere(const Guid &guid, const Key &key, ReadCursor &cursor,
                         Content &content_out);

    Mutex lock_; /* taken before that of a request; nothing is called under it */
    std::vector<std::shared_ptr<ServedRequest>> requests_ ABSL_GUARDED_BY(lock_);
    std::unordered_map<std::uint32_t, std::shared_ptr<Chunk>> contexts_ ABSL_GUARDED_BY(lock_);
    std::uint32_t last_context_ ABSL_GUARDED_BY(lock_) = 0;

    /* Withdrawn and not here; some never come. */
    std::set<std::pair<HostId, RequestId>> withdrawn_early_ ABSL_GUARDED_BY(lock_);

    std::atomic<std::size_t> num_readers_{0};
    std::atomic<std::size_t> num_out_{0}; /* chunks; written under the lock */
};

} // namespace store
