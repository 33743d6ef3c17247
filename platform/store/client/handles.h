/* Handles: what a handle number stands for, and the rule that one thread at a time uses it.
 *
 * A handle number is a slot's index and the slot's generation, so that the number of a closed
 * handle stays invalid although its slot is used again. Slots live in chunks that are never given
 * back: looking a number up takes no lock. Taking a handle for a call is one compare-and-swap on
 * its slot's state, which at once finds closed handles and handles that another call has. */
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "client/held_locks.h"
#include "engine/content.h"
#include "engine/contracts.h"
#include "serving/handle_note.h"
#include "serving/open_chunks.h"

namespace store {

struct alignas(64) HandleSlot {
    /* Self-synchronised: generation << 2 | busy << 1 | open. */
    std::atomic<std::uint32_t> state{1u << 2};
    /* Written by the call that has the handle, read by anyone. */
    std::atomic<std::uint64_t> num_reads{0};

    /* Of the call that has the handle. */
    Content pending;
    ReadCursor cursor; /* through which `pending` may have been read */
    HandleNote note;
    std::string error_text; /* more about what failed last; see HandleUse::explain */
    Guid guid{};
    bool handles_requests = false;            /* whether it was opened with a guid */
    OMRALIB_PROGRESS_FUNC progress = nullptr; /* called during its invocations */
    void *progress_arg = nullptr;

    HeldLocks locks; /* changed by the call that has the handle, read by anyone */

    /* Guarded by the lock of the table. */
    std::uint32_t index = 0;
    HandleSlot *next_free = nullptr; /* to be used after this one */

    void count_read() {
        num_reads.store(num_reads.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
};

class HandleTable {
public:
    HandleTable() = default;
    HandleTable(const HandleTable &) = delete;
    HandleTable &operator=(const HandleTable &) = delete;
    ~HandleTable();

    /* OMRALIB_NULL_HANDLE when all slots are open. Throws std::bad_alloc. */
    OMRALIB_HANDLE open(const Guid &guid);

    /* Frees the slot of a handle that the caller has taken with HandleUse. */
    void close(OMRALIB_HANDLE hdl, HandleSlot &slot);

    HandleSlot *slot_of(OMRALIB_HANDLE hdl) const {
        const std::uint32_t index = hdl & index_mask;
        HandleSlot *chunk = chunks_[index / chunk_slots].load(std::memory_order_acquire);
        return chunk == nullptr ? nullptr : &chunk[index % chunk_slots];
    }

    /* Successful reads through all handles, closed ones included. */
    std::uint64_t num_reads() const;

    /* The locks that are held through all handles. Throws std::bad_alloc. */
    std::vector<HeldLock> held_locks() const;

    static constexpr std::uint32_t open_bit = 1;
    static constexpr std::uint32_t busy_bit = 2;

    /* Whether a handle is open; it may be in use, and may be closed at any time. */
    bool is_open(OMRALIB_HANDLE hdl) const {
        const HandleSlot *slot = slot_of(hdl);
        return slot != nullptr &&
               (slot->state.load(std::memory_order_acquire) & ~busy_bit) == idle_state(hdl);
    }

    /* The state of the slot of an open handle that nobody is using. */
    static constexpr std::uint32_t idle_state(OMRALIB_HANDLE hdl) {
        return (hdl >> index_bits) << 2 | open_bit;
    }

private:
    static constexpr std::uint32_t index_bits = 16;
    static constexpr std::uint32_t index_mask = (1u << index_bits) - 1;
    static constexpr std::uint32_t chunk_slots = 256;
    /* The last index stays unused: with the last generation it would be OMRALIB_NULL_HANDLE. */
    static constexpr std::uint32_t max_slots = index_mask;

    std::uint32_t take_free_index() ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    template <typename Visit>
    void for_each_slot(Visit visit) const;

    std::array<std::atomic<HandleSlot *>, (1u << index_bits) / chunk_slots> chunks_{};

    Mutex lock_;
    /* Slots to be used again, chained: oldest first, so that numbers come back late. */
    std::uint32_t num_free_ ABSL_GUARDED_BY(lock_) = 0;
    HandleSlot *first_free_ ABSL_GUARDED_BY(lock_) = nullptr;
    HandleSlot *last_free_ ABSL_GUARDED_BY(lock_) = nullptr;
    std::atomic<std::uint32_t> num_slots_{0}; /* grows under lock_ */
};

/* Has a handle for the length of a call. */
class HandleUse {
public:
    HandleUse(const HandleTable &table, OMRALIB_HANDLE hdl) : idle_(HandleTable::idle_state(hdl)) {
        HandleSlot *slot = table.slot_of(hdl);
        std::uint32_t seen = idle_;
        if (slot != nullptr && slot->state.compare_exchange_strong(
                                   seen, idle_ | HandleTable::busy_bit, std::memory_order_acquire,
                                   std::memory_order_relaxed)) {
            slot_ = slot;
            status_ = OMRALIB_RET_SUCCESS;
        } else if (slot != nullptr && seen == (idle_ | HandleTable::busy_bit)) {
            status_ = OMRALIB_ERR_HANDLE_BUSY;
        }
    }
    HandleUse(const HandleUse &) = delete;
    HandleUse &operator=(const HandleUse &) = delete;
    ~HandleUse() {
        if (slot_ != nullptr) {
            slot_->state.store(idle_, std::memory_order_release);
        }
    }

    /* OMRALIB_RET_SUCCESS, OMRALIB_ERR_BAD_HANDLE or OMRALIB_ERR_HANDLE_BUSY. */
    Status status() const { return status_; }
    HandleSlot *operator->() const { return slot_; }
    HandleSlot &slot() const { return *slot_; }

    /* Says more than the status code, which this call is about to answer, can say. */
    void explain(std::string text) noexcept {
        slot_->error_text = std::move(text);
        explained_ = true;
    }

    /* The call fails: unless it has explained why, there is no more to say, or only in general. */
    void note_failure(Status status) noexcept;

    /* The handle has been closed: its slot is no longer this call's. */
    void forget() { slot_ = nullptr; }

private:
    HandleSlot *slot_ = nullptr;
    std::uint32_t idle_;
    bool explained_ = false;
    Status status_ = OMRALIB_ERR_BAD_HANDLE;
};

} // namespace store
