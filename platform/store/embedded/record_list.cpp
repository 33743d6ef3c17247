/* Entries come, are used again and go with the list. */
#include "embedded/record_list.h"

#include <algorithm>

namespace store {

namespace {

constexpr std::size_t first_segment = 4;
constexpr std::size_t largest_segment = 1024;

} // namespace

void RecordList::add(Record &record, std::uint32_t slot) {
    const Guard guard(lock_);
    RecordEntry *entry = first_free_;
    if (entry != nullptr) {
        first_free_ = entry->next_free;
    } else {
        if (segments_.empty() || segments_.back().num_used == segments_.back().num) {
            const std::size_t num = segments_.empty()
                                        ? first_segment
                                        : std::min(2 * segments_.back().num, largest_segment);
            segments_.push_back({std::make_unique<RecordEntry[]>(num), num});
        }
        Segment &segment = segments_.back();
        entry = &segment.entries[segment.num_used++];
    }
    entry->come(record, age_, slot);
    record.entry = entry;
    num_records_.store(size() + 1, std::memory_order_relaxed);
}

void RecordList::replace(Record &old, Record &fresh) {
    const Guard guard(lock_);
    fresh.entry = old.entry;
    fresh.entry->record = &fresh;
}

void RecordList::remove(Record &record) {
    const Guard guard(lock_);
    record.entry->age_and_slot = 0;
    record.entry->next_free = first_free_;
    first_free_ = record.entry;
    num_records_.store(size() - 1, std::memory_order_relaxed);
}

RecordList::Place RecordList::begin_scan() {
    const Guard guard(lock_);
    return {++age_};
}

std::shared_ptr<RecordList> RecordLists::get(std::uint32_t app_id) {
    if (std::shared_ptr<RecordList> list = find(app_id)) {
        return list;
    }
    /* Made without the lock, which the last one to let go of it takes. */
    std::shared_ptr<RecordList> fresh(new RecordList, [this, app_id](RecordList *list) {
        delete list;
        forget(app_id);
    });
    const Guard guard(lock_);
    std::weak_ptr<RecordList> &known = lists_[app_id];
    std::shared_ptr<RecordList> list = known.lock();
    if (list == nullptr) {
        known = fresh;
        list = fresh;
    }
    return list;
}

std::shared_ptr<RecordList> RecordLists::find(std::uint32_t app_id) {
    const Guard guard(lock_);
    const auto found = lists_.find(app_id);
    return found != lists_.end() ? found->second.lock() : nullptr;
}

/* Unless it has another list by now. */
void RecordLists::forget(std::uint32_t app_id) noexcept {
    const Guard guard(lock_);
    const auto found = lists_.find(app_id);
    if (found != lists_.end() && found->second.expired()) {
        lists_.erase(found);
    }
}

} // namespace store
