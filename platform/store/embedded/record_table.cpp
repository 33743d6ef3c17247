/* Finding records by their keys. */
#include "embedded/record_table.h"

#include <algorithm>
#include <bit>

namespace store {

Record *RecordTable::find(const Key &key, std::uint64_t hash) const {
    if (empty()) {
        return nullptr;
    }
    for (std::size_t place = first_place(hash); marks_[place] != is_free; place = after(place)) {
        if (marks_[place] == mark_of(hash) && order_of(key, places_[place]->key) == 0) {
            return places_[place];
        }
    }
    return nullptr;
}

/* The place of one that is there. */
std::size_t RecordTable::place_of(const Record &record, std::uint64_t hash) const {
    std::size_t place = first_place(hash);
    while (places_[place] != &record) {
        place = after(place);
    }
    return place;
}

/* Half of the new table is free, so that this is rare. Records may also have become fewer. */
void RecordTable::make_room() {
    constexpr std::size_t fewest_places = 4;
    if (4 * (num_not_free_ + 1) <= 3 * places_.size()) {
        return;
    }
    const std::size_t num_places = std::max(fewest_places, std::bit_ceil(2 * (num_records_ + 1)));
    RecordTable larger;
    larger.marks_.resize(num_places, is_free);
    larger.places_.resize(num_places, nullptr);
    for (Record *record : places_) {
        if (record != nullptr) {
            larger.insert(*record, hash_of(record->key));
        }
    }
    *this = std::move(larger);
}

void RecordTable::insert(Record &record, std::uint64_t hash) {
    std::size_t place = first_place(hash);
    while (places_[place] != nullptr) {
        place = after(place);
    }
    num_not_free_ += marks_[place] == is_free ? 1 : 0;
    marks_[place] = mark_of(hash);
    places_[place] = &record;
    ++num_records_;
}

void RecordTable::replace(const Record &old, Record &fresh, std::uint64_t hash) {
    places_[place_of(old, hash)] = &fresh;
}

/* At the end of a run of taken places nobody looks further: such places are free again. */
void RecordTable::erase(const Record &record, std::uint64_t hash) {
    std::size_t place = place_of(record, hash);
    places_[place] = nullptr;
    marks_[place] = was_taken;
    --num_records_;
    while (marks_[place] == was_taken && marks_[after(place)] == is_free) {
        marks_[place] = is_free;
        --num_not_free_;
        place = before(place);
    }
}

} // namespace store
