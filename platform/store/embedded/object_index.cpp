/* Keeping the index of a shard: entries linked into postings and out of them, and the sorted views.
 *
 * A posting goes with its last entry, from the views as well; only adding may want memory. */
#include "embedded/object_index.h"

#include <algorithm>
#include <cstring>
#include <new>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace store {

/* Entries -------------------------------------------------------------------------------------- */

namespace {

void link(IndexEntry &entry, const Posting &posting, Record &record) {
    entry = {&posting, &record, nullptr, posting.first};
    if (posting.first != nullptr) {
        posting.first->prev = &entry;
    }
    posting.first = &entry;
    ++posting.length;
}

void unlink(IndexEntry &entry) {
    if (entry.prev != nullptr) {
        entry.prev->next = entry.next;
    } else {
        entry.posting->first = entry.next;
    }
    if (entry.next != nullptr) {
        entry.next->prev = entry.prev;
    }
    --entry.posting->length;
}

} // namespace

std::size_t ObjectIndex::Hash::operator()(const IndexValueId &id) const {
    return XXH3_64bits_withSeed(&id.value, sizeof id.value, id.index);
}

bool ObjectIndex::Equal::same(const IndexValueId &a, const IndexValueId &b) {
    return a.index == b.index && std::memcmp(&a.value, &b.value, sizeof a.value) == 0;
}

const Posting &ObjectIndex::posting_of(const IndexValueId &id) {
    const auto found = postings_.find(id);
    if (found != postings_.end()) {
        return *found;
    }
    const Posting &posting = *postings_.insert(Posting{id}).first;
    add_to_views(posting);
    return posting;
}

void ObjectIndex::drop(const Posting &posting) {
    for (View &view : views_) {
        if (view.index == posting.id.index) {
            view.sorted.erase(&posting);
        }
    }
    postings_.erase(postings_.find(posting.id));
}

void ObjectIndex::attach(Record &record, std::span<const OMRA_OBJ_INDEX> values) {
    if (values.empty()) {
        return;
    }
    record.entries = new IndexEntry[values.size()];
    try {
        for (const OMRA_OBJ_INDEX &value : values) {
            const Posting &posting = posting_of({value.index, value.value});
            link(record.entries[record.num_entries], posting, record);
            ++record.num_entries;
        }
    } catch (...) {
        detach(record);
        throw;
    }
}

void ObjectIndex::detach(Record &record) {
    for (std::uint8_t i = 0; i < record.num_entries; ++i) {
        const Posting *posting = record.entries[i].posting;
        unlink(record.entries[i]);
        if (posting->length == 0) {
            drop(*posting);
        }
    }
    delete[] record.entries;
    record.entries = nullptr;
    record.num_entries = 0;
}

void ObjectIndex::move_entries(Record &from, Record &to) {
    to.entries = std::exchange(from.entries, nullptr);
    to.num_entries = std::exchange(from.num_entries, std::uint8_t{0});
    for (std::uint8_t i = 0; i < to.num_entries; ++i) {
        to.entries[i].record = &to;
    }
}

const Posting *ObjectIndex::find(const IndexValueId &id) const {
    const auto found = postings_.find(id);
    return found == postings_.end() ? nullptr : &*found;
}

/* Views ---------------------------------------------------------------------------------------- */

/* A view that there is no memory for is given up, and made again when it is needed. */
void ObjectIndex::add_to_views(const Posting &posting) {
    try {
        for (View &view : views_) {
            if (view.index == posting.id.index) {
                view.sorted.insert(&posting);
            }
        }
    } catch (const std::bad_alloc &) {
        views_.clear();
    }
}

const ObjectIndex::View &ObjectIndex::view_of(std::uint16_t index, ValueOrder order) {
    for (const View &view : views_) {
        if (view.index == index && view.order() == order) {
            return view;
        }
    }
    std::vector<const Posting *> postings;
    for (const Posting &posting : postings_) {
        if (posting.id.index == index) {
            postings.push_back(&posting);
        }
    }
    const ValueLess less{order};
    std::sort(postings.begin(), postings.end(), less);
    views_.push_back({index, {postings.begin(), postings.end(), less}});
    return views_.back();
}

} // namespace store
