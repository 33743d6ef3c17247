/* Slots are taken, given back and walked over. */
#include "client/handles.h"

#include <new>

namespace store {

HandleTable::~HandleTable() {
    for (auto &chunk : chunks_) {
        delete[] chunk.load(std::memory_order_relaxed);
    }
}

/* An index that no open handle has, or max_slots. */
std::uint32_t HandleTable::take_free_index() {
    const std::uint32_t fresh = num_slots_.load(std::memory_order_relaxed);
    if (first_free_ != nullptr && (num_free_ >= chunk_slots || fresh == max_slots)) {
        const std::uint32_t index = first_free_->index;
        first_free_ = first_free_->next_free;
        --num_free_;
        return index;
    }
    if (fresh == max_slots) {
        return max_slots;
    }
    if (fresh % chunk_slots == 0 &&
        chunks_[fresh / chunk_slots].load(std::memory_order_relaxed) == nullptr) {
        chunks_[fresh / chunk_slots].store(new HandleSlot[chunk_slots], std::memory_order_release);
    }
    num_slots_.store(fresh + 1, std::memory_order_release);
    return fresh;
}

OMRALIB_HANDLE HandleTable::open(const Guid &guid) {
    const Guard guard(lock_);
    const std::uint32_t index = take_free_index();
    if (index == max_slots) {
        return OMRALIB_NULL_HANDLE;
    }
    HandleSlot &slot = *slot_of(index);
    slot.index = index;
    slot.guid = guid;
    slot.handles_requests = guid != Guid{};
    const std::uint32_t closed = slot.state.load(std::memory_order_relaxed);
    slot.state.store(closed | open_bit, std::memory_order_release);
    return (closed >> 2) << index_bits | index;
}

void HandleTable::close(OMRALIB_HANDLE hdl, HandleSlot &slot) {
    slot.pending.reset();
    slot.note = {};
    slot.locks.clear();
    slot.progress = nullptr;
    slot.error_text = {};
    std::uint32_t generation = (hdl >> index_bits) + 1;
    if (generation > index_mask) {
        generation = 1;
    }
    const Guard guard(lock_);
    slot.next_free = nullptr;
    (first_free_ == nullptr ? first_free_ : last_free_->next_free) = &slot;
    last_free_ = &slot;
    ++num_free_;
    slot.state.store(generation << 2, std::memory_order_release);
}

template <typename Visit>
void HandleTable::for_each_slot(Visit visit) const {
    const std::uint32_t num_used = num_slots_.load(std::memory_order_acquire);
    for (std::uint32_t i = 0; i < num_used; ++i) {
        if (const HandleSlot *slot = slot_of(i)) {
            visit(*slot);
        }
    }
}

std::uint64_t HandleTable::num_reads() const {
    std::uint64_t sum = 0;
    for_each_slot(
        [&](const HandleSlot &slot) { sum += slot.num_reads.load(std::memory_order_relaxed); });
    return sum;
}

std::vector<HeldLock> HandleTable::held_locks() const {
    std::vector<HeldLock> held;
    for_each_slot([&](const HandleSlot &slot) { slot.locks.append_to(held); });
    return held;
}

void HandleUse::note_failure(Status status) noexcept {
    if (explained_ || slot_ == nullptr) {
        return;
    }
    try {
        slot_->error_text =
            status == OMRALIB_ERR_UNKNOWN
                ? "the store was asked and has not answered: it may have been done, may "
                  "be done yet, or never; look before doing it again"
                : "";
    } catch (const std::bad_alloc &) {
        slot_->error_text.clear(); /* the code says enough */
    }
}

} // namespace store
