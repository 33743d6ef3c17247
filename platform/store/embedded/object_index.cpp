#include "embedded/object_index.h"

#include <algorithm>
#include <cstring>
#include <utility>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace store {

/* Entries ----------------------------------------------------------------------------------------
 */

namespace {

void link(IndexEntry &entry, Posting &posting, Record &record) {
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

ObjectIndex::~ObjectIndex() {
    for (const auto &posting : postings_) {
        while (posting->first != nullptr) {
            Record &record = *posting->first->record;
            std::for_each_n(record.entries, record.num_entries, unlink);
            delete[] std::exchange(record.entries, nullptr);
            record.num_entries = 0;
        }
    }
}

std::size_t ObjectIndex::Hash::operator()(const IndexValueId &id) const {
    return XXH3_64bits_withSeed(&id.value, sizeof id.value, id.index);
}

bool ObjectIndex::Equal::same(const IndexValueId &a, const IndexValueId &b) {
    return a.index == b.index && std::memcmp(&a.value, &b.value, sizeof a.value) == 0;
}

Posting &ObjectIndex::posting_of(const IndexValueId &id) {
    const auto found = postings_.find(id);
    if (found != postings_.end()) {
        return **found;
    }
    return **postings_.insert(std::make_unique<Posting>(Posting{id})).first;
}

void ObjectIndex::attach(Record &record, std::span<const OMRA_OBJ_INDEX> values) {
    if (values.empty()) {
        return;
    }
    record.entries = new IndexEntry[values.size()];
    try {
        for (const OMRA_OBJ_INDEX &value : values) {
            Posting &posting = posting_of({value.index, value.value});
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
        Posting *posting = record.entries[i].posting;
        unlink(record.entries[i]);
        if (posting->length == 0) {
            postings_.erase(postings_.find(posting->id));
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
    return found == postings_.end() ? nullptr : found->get();
}

/* Terms ------------------------------------------------------------------------------------------
 */

TermMatcher::TermMatcher(const ObjectIndex &index, const Selection &selection)
    : match_all_(selection.match_all || selection.terms.empty()) {
    for (const Term &term : selection.terms) {
        terms_.push_back({index.find({term.index, term.value}), term.negated});
    }
    if (match_all_) {
        choose_shortest_posting();
    } else {
        choose_all_postings();
    }
}

/* All terms must match: the matches are in the posting of any term that is not negated. */
void TermMatcher::choose_shortest_posting() {
    const Posting *shortest = nullptr;
    for (const Bound &term : terms_) {
        if (term.negated) {
            continue;
        }
        if (term.posting == nullptr) {
            nothing_ = true;
            return;
        }
        if (shortest == nullptr || term.posting->length < shortest->length) {
            shortest = term.posting;
        }
    }
    if (shortest != nullptr) {
        to_walk_.push_back(shortest);
    }
}

/* One term is enough: a negated one lets in nearly everything, so that only looking at every record
 * finds the matches; without negated ones they are in the postings. */
void TermMatcher::choose_all_postings() {
    for (const Bound &term : terms_) {
        if (term.negated) {
            to_walk_.clear();
            return;
        }
        if (term.posting != nullptr) {
            to_walk_.push_back(term.posting);
        }
    }
    nothing_ = to_walk_.empty();
}

bool TermMatcher::has(const Record &record, const Posting *posting) {
    return std::any_of(record.entries, record.entries + record.num_entries,
                       [posting](const IndexEntry &entry) { return entry.posting == posting; });
}

/* Whether the record is in one of the first `num_walked` postings. */
bool TermMatcher::seen_before(const Record &record, std::size_t num_walked) const {
    return std::any_of(to_walk_.begin(), to_walk_.begin() + static_cast<std::ptrdiff_t>(num_walked),
                       [&](const Posting *posting) { return has(record, posting); });
}

bool TermMatcher::matches(const Record &record) const {
    const auto matches_term = [&record](const Bound &term) {
        return has(record, term.posting) != term.negated;
    };
    return match_all_ ? std::all_of(terms_.begin(), terms_.end(), matches_term)
                      : std::any_of(terms_.begin(), terms_.end(), matches_term);
}

} // namespace store
