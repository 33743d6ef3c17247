/* The index of the records of one shard: for every value of every index the records that have it.
 *
 *   posting (index 0, "a")  <->  entry of record 1  <->  entry of record 7  <->  ...
 *   posting (index 3, 42)   <->  entry of record 1
 *
 * A record has one entry for each of its index values; the entries of a posting are a doubly linked
 * list, so that a record leaves in constant time however many records share its value. A posting
 * knows its length, which is what a query chooses its way by.
 *
 * A single value is found by its hash. For ranges the postings of an index are kept sorted as well,
 * in the order that the range is meant in; the first query that needs such a view makes it, so that
 * an index which is only asked for single values costs no sorting. The shard's lock guards all. */
#pragma once

#include <cstdint>
#include <set>
#include <span>
#include <unordered_set>
#include <vector>

#include "embedded/record.h"
#include "engine/conditions.h"

namespace store {

struct IndexValueId {
    std::uint16_t index;
    OMRA_INDEX_VALUE value;
};

struct Posting {
    const IndexValueId id;
    mutable std::uint32_t length = 0; /* changes where it stands in the table */
    mutable IndexEntry *first = nullptr;
};

struct IndexEntry {
    const Posting *posting;
    Record *record;
    IndexEntry *prev;
    IndexEntry *next;
};

/* Every record leaves the index before it ends. */
class ObjectIndex {
public:
    ObjectIndex() = default;
    ObjectIndex(const ObjectIndex &) = delete;
    ObjectIndex &operator=(const ObjectIndex &) = delete;

    /* Gives a record that has none its entries. Changes nothing when it throws. */
    void attach(Record &record, std::span<const OMRA_OBJ_INDEX> values);

    /* Takes a record's entries away. */
    void detach(Record &record);

    /* Makes the entries of `from` those of `to`, which has none. */
    static void move_entries(Record &from, Record &to);

    /* nullptr when no record has the value. */
    const Posting *find(const IndexValueId &id) const;

    /* Calls visit(posting) for the postings with the values of a comparison with an index, until it
     * answers false. May make a view. */
    template <typename Visit>
    void visit_postings(const Condition &comparison, Visit visit) {
        for (const ValueRange &range : comparison.ranges) {
            if (range.is_one_value()) {
                const Posting *posting = find({comparison.index, range.low});
                if (posting != nullptr && !visit(*posting)) {
                    return;
                }
                continue;
            }
            const View &view = view_of(comparison.index, comparison.order);
            for (auto it = view.sorted.lower_bound(range.low); it != view.sorted.end(); ++it) {
                if (compare(range.high, (*it)->id.value, comparison.order) < 0) {
                    break;
                }
                if (!visit(**it)) {
                    return;
                }
            }
        }
    }

private:
    struct ValueLess {
        using is_transparent = void;
        static const IndexValue &value_of(const IndexValue &value) { return value; }
        static const IndexValue &value_of(const Posting *posting) { return posting->id.value; }
        template <typename A, typename B>
        bool operator()(const A &a, const B &b) const {
            return compare(value_of(a), value_of(b), order) < 0;
        }

        ValueOrder order;
    };

    /* The postings of one index in one order. */
    struct View {
        std::uint16_t index;
        std::set<const Posting *, ValueLess> sorted;

        ValueOrder order() const { return sorted.key_comp().order; }
    };

    struct Hash {
        using is_transparent = void;
        std::size_t operator()(const IndexValueId &id) const;
        std::size_t operator()(const Posting &posting) const { return (*this)(posting.id); }
    };
    struct Equal {
        using is_transparent = void;
        static const IndexValueId &id_of(const IndexValueId &id) { return id; }
        static const IndexValueId &id_of(const Posting &posting) { return posting.id; }
        static bool same(const IndexValueId &a, const IndexValueId &b);
        template <typename A, typename B>
        bool operator()(const A &a, const B &b) const {
            return same(id_of(a), id_of(b));
        }
    };

    const Posting &posting_of(const IndexValueId &id);
    void add_to_views(const Posting &posting);
    void drop(const Posting &posting);
    const View &view_of(std::uint16_t index, ValueOrder order);

    std::unordered_set<Posting, Hash, Equal> postings_; /* stay where they are */
    std::vector<View>
        views_; /* at most two of an index; few, so that looking through them is quick */
};

} // namespace store
