/* Finding records by their keys. */
#include "embedded/record_table.h"

#include <utility>

#include "engine/slots.h"

namespace store {

Record *RecordTable::find(const Key &key, std::uint64_t hash) const {
    for (std::size_t place = first_place(hash);; place = after(place)) {
        Record *record = places_[place].record();
        if (record == nullptr ||
            (places_[place].may_have(hash) && order_of(key, record->key) == 0)) {
            return record;
        }
    }
}

/* The place of one that is there. */
std::size_t RecordTable::place_of(const Record &record, std::uint64_t hash) const {
    std::size_t place = first_place(hash);
    while (places_[place].record() != &record) {
        place = after(place);
    }
    return place;
}

void RecordTable::make_room() {
    if (4 * (num_records_ + 1) <= 3 * places_.size()) {
        return;
    }
    auto more = std::make_unique<Place[]>(2 * places_.size());
    const std::span<const Place> before = places_;
    places_ = {more.get(), 2 * before.size()};
    for (const Place place : before) {
        if (Record *record = place.record()) {
            put(*record, hash_of(record->key));
        }
    }
    many_places_ = std::move(more);
}

void RecordTable::put(Record &record, std::uint64_t hash) {
    std::size_t place = first_place(hash);
    while (places_[place].record() != nullptr) {
        place = after(place);
    }
    places_[place] = {record, hash};
}

void RecordTable::insert(Record &record, std::uint64_t hash) {
    put(record, hash);
    ++num_records_;
}

void RecordTable::replace(const Record &old, Record &fresh, std::uint64_t hash) {
    places_[place_of(old, hash)] = {fresh, hash};
}

/* Those that follow move up, unless they would come to lie in front of their first place. */
void RecordTable::erase(const Record &record, std::uint64_t hash) {
    std::size_t gap = place_of(record, hash);
    for (std::size_t place = after(gap); const Record *other = places_[place].record();
         place = after(place)) {
        if (distance(first_place(hash_of(other->key)), place) >= distance(gap, place)) {
            places_[gap] = places_[place];
            gap = place;
        }
    }
    places_[gap] = {};
    --num_records_;
}

} // namespace store
