/* The requests that this host has accepted and not yet completed, and what reads tell about them.
 *
 * A request is noticed while its progress is wanted or it has been withdrawn. Reads by those who
 * handle requests are then compared with the open ones: they tell how far a request is, and a read
 * for withdrawn requests alone is to find no object, so that their handlers drop what they have not
 * begun. While nothing is noticed, a read pays for one relaxed load.
 *
 * While something is, a reader asks its own notes: which requests are open, and where in their keys
 * it has been. They are made anew, under the lock, only when the open requests have changed. What
 * has been begun is marked in a byte of its own for every key, and counted when somebody asks. */
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "engine/cluster.h"

namespace store {

struct OpenRequest {
    OpenRequest(Request its_request, std::vector<Key> its_keys, const Guid &its_guid);

    /* Constant. */
    const Request request;       /* but for what its share says: */
    const std::vector<Key> keys; /* to evaluate, in key order; none for a merge request */
    const Guid guid;             /* of whoever handles it */

    /* Self-synchronised. */
    std::atomic<bool> withdrawn{false};
    const std::unique_ptr<std::atomic<bool>[]> begun; /* by key, when progress is wanted */
    std::atomic<bool> has_merged{false};              /* of a merge request: into its results */
    std::atomic<bool> lacks_room{false};              /* for its results or its exceptions */

    bool is_noticed() const {
        return request.progress_is_wanted || withdrawn.load(std::memory_order_relaxed);
    }
    bool is(const HostId &sender, RequestId id) const {
        return request.sender == sender && request.id == id;
    }
    std::uint64_t num_begun() const;
};

/* What a reader knows of the open requests; belongs to one thread at a time. It keeps the requests
 * that it knows in memory until its next look. */
class ReadNotes {
public:
    bool is_empty() const { return requests_.empty(); }
    void clear() { requests_.clear(); }

private:
    friend class OpenRequests;

    struct Known {
        std::shared_ptr<OpenRequest> request;
        std::size_t place = 0; /* in its keys: behind the last one read */
    };

    std::uint64_t version_ = 0;
    std::vector<Known> requests_;
};

/* All operations may be called by any thread. */
class OpenRequests {
public:
    OpenRequests() = default;
    OpenRequests(const OpenRequests &) = delete;
    OpenRequests &operator=(const OpenRequests &) = delete;

    /* A context that names the request from now on; 0 when it was withdrawn before it came. Throws
     * std::bad_alloc. */
    std::uint32_t add(const std::shared_ptr<OpenRequest> &request);

    /* Ends a context; exactly one of those who try gets the request, the others nullptr. */
    std::shared_ptr<OpenRequest> take(std::uint32_t context);

    /* The request of a context that is open; nullptr: it is not. */
    std::shared_ptr<OpenRequest> find(std::uint32_t context);

    /* A withdrawal that comes before its request waits for it. */
    void withdraw(const HostId &sender, RequestId id);
    bool is_withdrawn(const HostId &sender, RequestId id);

    /* Whether it was; then it is known here no more. */
    bool forget_withdrawn(const HostId &sender, RequestId id);

    /* As if one that has not been withdrawn were; nullptr when there is none. */
    std::shared_ptr<OpenRequest> withdraw_one();

    RequestProgress progress_of(const HostId &sender, RequestId id);

    /* The object at `key` has new bytes: if it is the results object of a merge request, that has
     * happened. */
    void note_update(const Key &key);

    /* There was no room for the object at `key`: if it is one that a request leaves, its sender is
     * to know. */
    void note_no_room(const Key &key);

    /* True while reads are to be told to note_read(). */
    bool is_noticing() const { return num_noticed_.load(std::memory_order_relaxed) != 0; }

    /* Somebody who handles requests for `guid` reads `key`. False when the read is to find no
     * object. Throws std::bad_alloc. */
    bool note_read(const Guid &guid, const Key &key, ReadNotes &notes);

private:
    std::shared_ptr<OpenRequest> find(const HostId &sender, RequestId id)
        ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    void withdraw(OpenRequest &request) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    void update(const Guid &guid, ReadNotes &notes);

    Mutex lock_; /* a leaf: nothing is called under it */
    std::unordered_map<std::uint32_t, std::shared_ptr<OpenRequest>>
        contexts_ ABSL_GUARDED_BY(lock_);
    std::uint32_t last_context_ ABSL_GUARDED_BY(lock_) = 0;

    /* Withdrawn and not here; some never come. */
    std::set<std::pair<HostId, RequestId>> withdrawn_early_ ABSL_GUARDED_BY(lock_);

    /* Written under the lock. */
    std::atomic<std::uint32_t> num_noticed_{0}; /* of contexts_ */
    std::atomic<std::uint64_t> version_{1};     /* of contexts_ and of what is noticed there */
};

} // namespace store
