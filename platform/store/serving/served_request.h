/* A request that this host has taken on, until its reply, and the chunks in which it is handed to
 * the process's callback, each as if it were a request of its own.
 *
 *   keys --next_step--> chunk --handed out--> end() --> its counts, results, exceptions
 *            ^            ^         | refused     |
 *            |            +-put_back+             |
 *            +--- room in the window again <------+
 *
 * Few keys are one chunk; so are those of a request that must not be divided, and a request to
 * merge. What chunks leave comes to lie in the request's own objects: results are merged
 * into one object (partial_results.h), exceptions are collected here, and stored at the end.
 *
 * One thread at a time feeds a request: takes keys and hands chunks out. Whoever ends a chunk asks
 * for that when there is room again. The thread after which nothing is left to do finishes the
 * request. Both are found out under the lock: what end() and rest() answer.
 *
 * Left to others: calling the callback, the objects, the reply (serving.h). */
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "engine/cluster.h"
#include "serving/key_source.h"
#include "serving/pace.h"
#include "serving/partial_results.h"

namespace store {

class ServedRequest;

/* What is handed out under one context. */
struct Chunk {
    /* Constant. */
    std::shared_ptr<ServedRequest> request;
    SomeKeys keys;         /* to evaluate; none to merge */
    bool is_alone = false; /* there is no other chunk of the request */
    Key results_key{};
    Key exceptions_key{};
    PartialResults::Partial *results = nullptr; /* to which it adds; none of this host's merges */
    PartialResults::Merge merge;                /* of results objects of this host; else empty */
    Key source{};                               /* of one that merges, into results_key */
    std::unique_ptr<std::atomic<bool>[]> begun; /* by key, when progress is wanted */

    /* Self-synchronised. */
    std::atomic<bool> has_merged{false}; /* of one that merges: into its results */

    bool merges() const { return !is_null(source); }
    std::uint64_t num_begun() const;
};

/* What is known of a chunk when it ends. */
struct ChunkEnd {
    std::uint32_t num_successful = 0;
    std::uint32_t num_failed = 0;
    std::uint64_t results_length = 0; /* bytes of the object by now, 0 when that is not known */
    std::vector<std::byte> exceptions = {};
};

class ServedRequest : public std::enable_shared_from_this<ServedRequest> {
public:
    /* The request without its share, and that; `known_window` may be 0. */
    ServedRequest(Request its_request, Share its_share, const Guid &its_guid,
                  std::uint32_t known_window);
    ServedRequest(const ServedRequest &) = delete;
    ServedRequest &operator=(const ServedRequest &) = delete;

    /* Constant. */
    const Request request; /* but for its share */
    const Guid guid;       /* of whoever handles it */

    /* Self-synchronised. */
    std::atomic<bool> withdrawn{false};
    std::atomic<bool> lacks_room{false}; /* for an object of it */

    bool is(const HostId &sender, RequestId id) const {
        return request.sender == sender && request.id == id;
    }

    /* Feeding: the thread whose turn it is ---------------------------------------------------- */

    Status open(Objects &objects);

    enum class Step : std::uint8_t { hand_out, search, rest };

    /* What is to be done next; `chunk` is what is to be handed out. Throws std::bad_alloc. */
    Step next_step(std::size_t num_readers, Millis now, std::shared_ptr<Chunk> &chunk);

    /* Looks for keys, for about a millisecond at most. */
    Status search();

    /* The chunk has not been taken on, by this answer of the callback: it is handed out later, when
     * another one ends, or it fails the request. */
    void put_back(std::shared_ptr<Chunk> chunk, int refusal);

    /* A chunk that was put back keeps its request in memory, and the request the chunk. */
    void drop_put_back();

    /* The request cannot be done here: its sender is to hear this. */
    void fail(int refusal);

    /* What is to follow. */
    enum class After : std::uint8_t {
        nothing,
        feeding,  /* by the thread that the caller asks for it */
        finishing /* by the caller */
    };

    /* The turn is over. */
    After rest();

    /* Ends: any thread ------------------------------------------------------------------------ */

    /* A chunk that was handed out is over. */
    After end(const Chunk &chunk, ChunkEnd end, Millis now);

    /* A chunk has been given up in a way that nobody knows what it has left: the request fails. */
    After give_up(const Chunk &chunk);

    /* At any time: any thread ----------------------------------------------------------------- */

    /* Objects found, or expected to be, and those of chunks that are over. */
    RequestProgress progress();

    template <typename Visit>
    void for_each_results_key(Visit visit) {
        const Guard guard(lock_);
        results_.for_each_key(visit);
    }

    /* When it is to be finished; by who finishes it ------------------------------------------- */

    struct Outcome {
        int refusal = 0; /* unless it is to be completed */
        bool has_failed = false;
        std::uint64_t num_matched = 0;
        std::uint64_t num_successful = 0;
        std::uint64_t num_failed = 0;
        std::uint32_t window = 0;          /* for the next request of the function */
        std::vector<std::byte> exceptions; /* of all chunks, unless there was but one */
    };
    Outcome take_outcome();

private:
    std::shared_ptr<Chunk> make_chunk(SomeKeys keys, bool is_alone)
        ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    std::shared_ptr<Chunk> make_merge() ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    std::shared_ptr<Chunk> next_without_keys() ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    void count_out(const Chunk &chunk) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    void count_in(const Chunk &chunk) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    bool can_go_on() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    bool is_stopped() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_) {
        return has_failed_ || withdrawn;
    }
    bool is_done() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    After after_end() ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);

    /* Of the thread whose turn it is. */
    Share share_; /* constant after set-up */
    KeySource source_;
    std::size_t num_wanted_ = 0; /* keys, by search() */

    Mutex lock_;                                       /* a leaf */
    bool is_fed_ ABSL_GUARDED_BY(lock_) = true;        /* it is somebody's turn, or will be */
    bool has_begun_ ABSL_GUARDED_BY(lock_) = false;    /* to hand out chunks */
    bool has_all_keys_ ABSL_GUARDED_BY(lock_) = false; /* nothing is left in the source */
    std::size_t num_readers_ ABSL_GUARDED_BY(lock_) = 0;
    std::shared_ptr<Chunk> put_back_ ABSL_GUARDED_BY(lock_); /* to be handed out first */
    bool waits_for_end_ ABSL_GUARDED_BY(lock_) = false;      /* before it is tried again */
    Pace pace_ ABSL_GUARDED_BY(lock_);
    PartialResults results_ ABSL_GUARDED_BY(lock_);
    std::size_t num_chunks_out_ ABSL_GUARDED_BY(lock_) = 0;
    std::size_t num_keys_out_ ABSL_GUARDED_BY(lock_) = 0;
    std::uint64_t last_chunk_ ABSL_GUARDED_BY(lock_) = 0; /* number of */
    std::uint64_t num_expected_ ABSL_GUARDED_BY(lock_) = 0;
    std::uint64_t num_matched_ ABSL_GUARDED_BY(lock_) = 0;
    std::uint64_t num_over_ ABSL_GUARDED_BY(lock_) = 0;
    std::uint64_t num_failed_ ABSL_GUARDED_BY(lock_) = 0;
    std::vector<std::byte> exceptions_ ABSL_GUARDED_BY(lock_);
    bool has_failed_ ABSL_GUARDED_BY(lock_) = false;
    int refusal_ ABSL_GUARDED_BY(lock_) = 0;
};

} // namespace store
