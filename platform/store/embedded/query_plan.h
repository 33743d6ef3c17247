/* How a query is answered from the indexes of a shard, or without them.
 *
 * Records are found in one of two ways: by looking the values of comparisons up in the index and
 * testing the whole condition on the records found there, or by testing it on every record. Which
 * comparisons are looked up follows from the numbers of records that they would give:
 *
 *   comparison   its own, if it is one with an index and not negated; else it cannot be looked up
 *   all_of       the part that gives the fewest; the others are only tested
 *   any_of       all parts, if all of them can be
 *
 * A QueryPlan is made once for a query and then bound to one shard after the other, whose locks
 * guard what it does there. Counting stops where a cheaper way is known, and when it has taken long
 * enough: every record is tested then. A record that several comparisons give is tested once.
 *
 * A QuerySurvey says which way a query would go. It asks the plan for its choice at every shard and
 * describes the way by which most objects would be looked for; of its own it only counts how many
 * objects each condition holds for, which decides nothing. */
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "embedded/object_index.h"
#include "embedded/record.h"
#include "engine/selection.h"

namespace store {

class QueryPlan {
public:
    /* `selection` outlives the plan; `now_s` is the second that ages are counted to. */
    QueryPlan(const Selection &selection, std::uint32_t now_s);

    const Selection &selection() const { return selection_; }

    /* Turns to a shard and chooses the way there. True: look_up() finds the records to be tested;
     * false: every record has to be. */
    bool bind(ObjectIndex &index, std::size_t num_records);

    /* Turns to that shard again, which has changed since. */
    void bind_again(ObjectIndex &index) {
        index_ = &index;
        find_postings();
    }

    /* Calls visit(record) for every record that may be a match, for some more than once. */
    template <typename Visit>
    void look_up(Visit visit) {
        for (const std::size_t source : sources_) {
            index_->visit_postings(*nodes_[source].condition, [&](const Posting &posting) {
                ++num_examined_;
                for (const IndexEntry *entry = posting.first; entry != nullptr;
                     entry = entry->next) {
                    visit(*entry->record);
                }
                return true;
            });
        }
    }

    /* Records that can be tested within about a millisecond. */
    std::size_t num_testable() const;

    bool test(const Record &record) {
        ++num_examined_;
        return holds(nodes_.front(), record);
    }

    /* Records and index values looked at so far. */
    std::uint64_t num_examined() const { return num_examined_; }

private:
    friend class QuerySurvey;

    /* A condition of the selection. The nodes stand in the order of the query: the parts of a
     * condition follow it, and `end` is behind the last of them. */
    struct Node {
        const Condition *condition;
        std::size_t end;
        bool is_one_value; /* a comparison of an index with a single value */
        bool negated;

        /* Of the shard. */
        const Posting *posting = nullptr; /* of the single value; nullptr: no record has it */
        std::size_t cheapest = 0;         /* the part of an all_of that gives the fewest records */
    };

    void add_nodes(const Condition &condition);
    void find_postings();
    std::uint64_t count_values(const Condition &comparison, std::uint64_t enough);
    std::uint64_t expect(std::size_t at, std::uint64_t enough);
    std::uint64_t expect_all_of(std::size_t at, std::uint64_t enough);
    std::uint64_t expect_any_of(std::size_t at, std::uint64_t enough);
    std::uint64_t expect_comparison(std::size_t at, std::uint64_t enough);
    template <typename Visit>
    void follow_choice(std::size_t at, Visit visit) const;

    bool holds(const Node &node, const Record &record) const;
    bool comparison_holds(const Node &node, const Record &record) const;

    const Selection &selection_;
    const std::uint32_t now_s_;
    std::vector<Node> nodes_;
    std::uint64_t num_examined_ = 0;

    /* Of the shard. */
    ObjectIndex *index_ = nullptr;
    std::vector<std::size_t> sources_; /* the comparisons that are looked up */
    std::uint64_t may_count_ = 0;      /* so many values more, to choose the way */
};

class QuerySurvey {
public:
    QuerySurvey(const Selection &selection, std::uint32_t now_s);

    /* Adds a shard. `examples` are some of its records, for the comparisons that no index can
     * answer. */
    void add(ObjectIndex &index, std::size_t num_records, std::span<const Record *const> examples);

    Explanation explain() const;

private:
    std::uint64_t expect_comparison(std::size_t at, std::size_t num_records,
                                    std::span<const Record *const> examples);
    std::uint64_t expected(std::size_t at) const;
    void describe(std::size_t at, unsigned int level, Explanation::Access access,
                  Explanation &explanation) const;
    void describe_parts(std::size_t at, unsigned int level, Explanation::Access access,
                        Explanation &explanation) const;

    QueryPlan plan_;
    std::uint64_t num_objects_ = 0;

    /* By node. */
    std::vector<std::uint64_t> expected_;  /* of the comparisons */
    std::vector<std::uint64_t> looked_up_; /* objects of the shards that are searched this way */
};

} // namespace store
