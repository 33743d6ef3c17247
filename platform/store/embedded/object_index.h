/* The index of the records of one shard: for every value of every index the records that have it.
 *
 *   posting (index 0, "a")  <->  entry of record 1  <->  entry of record 7  <->  ...
 *   posting (index 3, 42)   <->  entry of record 1
 *
 * A record has one entry for each of its index values; the entries of a posting are a doubly linked
 * list, so that a record leaves in constant time however many records share its value. A posting
 * knows its length, which is what a query chooses its way by. The shard's lock guards all of it. */
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <absl/container/flat_hash_set.h>

#include "embedded/record.h"

namespace store {

struct IndexValueId {
    std::uint16_t index;
    OMRA_INDEX_VALUE value;
};

struct Posting {
    const IndexValueId id;
    std::uint32_t length = 0;
    IndexEntry *first = nullptr;
};

struct IndexEntry {
    Posting *posting;
    Record *record;
    IndexEntry *prev;
    IndexEntry *next;
};

class ObjectIndex {
public:
    ObjectIndex() = default;
    ObjectIndex(const ObjectIndex &) = delete;
    ObjectIndex &operator=(const ObjectIndex &) = delete;
    ~ObjectIndex();

    /* Gives a record that has none its entries. Changes nothing when it throws. */
    void attach(Record &record, std::span<const OMRA_OBJ_INDEX> values);

    /* Takes a record's entries away. */
    void detach(Record &record);

    /* Makes the entries of `from` those of `to`, which has none. */
    static void move_entries(Record &from, Record &to);

    /* nullptr when no record has the value. */
    const Posting *find(const IndexValueId &id) const;

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(const IndexValueId &id) const;
        std::size_t operator()(const std::unique_ptr<Posting> &posting) const {
            return (*this)(posting->id);
        }
    };
    struct Equal {
        using is_transparent = void;
        static const IndexValueId &id_of(const IndexValueId &id) { return id; }
        static const IndexValueId &id_of(const std::unique_ptr<Posting> &posting) {
            return posting->id;
        }
        static bool same(const IndexValueId &a, const IndexValueId &b);
        template <typename A, typename B>
        bool operator()(const A &a, const B &b) const {
            return same(id_of(a), id_of(b));
        }
    };

    Posting &posting_of(const IndexValueId &id);

    absl::flat_hash_set<std::unique_ptr<Posting>, Hash, Equal> postings_;
};

/* A selection's terms against the records of one shard. */
class TermMatcher {
public:
    TermMatcher(const ObjectIndex &index, const Selection &selection);

    bool matches(const Record &record) const;

    /* True when the postings that walk() visits hold every match; else all records must be tried.
     */
    bool has_postings() const { return !to_walk_.empty() || nothing_; }

    /* Calls visit(record) once for every match. */
    template <typename Visit>
    void walk(Visit visit) const {
        for (std::size_t i = 0; i < to_walk_.size(); ++i) {
            for (const IndexEntry *entry = to_walk_[i]->first; entry != nullptr;
                 entry = entry->next) {
                if (!seen_before(*entry->record, i) && matches(*entry->record)) {
                    visit(*entry->record);
                }
            }
        }
    }

private:
    struct Bound {
        const Posting *posting; /* nullptr: no record has the value */
        bool negated;
    };

    static bool has(const Record &record, const Posting *posting);
    bool seen_before(const Record &record, std::size_t num_walked) const;
    void choose_all_postings();
    void choose_shortest_posting();

    bool match_all_;
    bool nothing_ = false; /* no record can match */
    std::vector<Bound> terms_;
    std::vector<const Posting *> to_walk_;
};

} // namespace store
