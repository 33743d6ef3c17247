/* Choosing the way of a query through a shard, testing records, and telling the way to the user.
 *
 * In call order: for an answer QueryPlan::bind() and look_up() or test() at each shard; for an
 * explanation QuerySurvey::add() at each shard and explain(). Both choose by expect(), which knows
 * the indexes alone: the records themselves, expired ones too, are the shard's business. */
#include "embedded/query_plan.h"

#include <algorithm>

namespace store {

namespace {

using Kind = Condition::Kind;
using Field = Condition::Field;

/* Counting starts with this many records and goes on to `patience` times as many, and so on. */
constexpr std::uint64_t first_try = 8;
constexpr std::uint64_t patience = 4;

/* What takes a millisecond or less: counting so many values, testing so many conditions. */
constexpr std::uint64_t max_counted = 50'000;
constexpr std::size_t max_tested = 50'000;

bool can_look_up(const Condition &comparison) {
    return comparison.field == Field::index && !comparison.negated;
}

/* The record's value of an index, or nullptr. */
const IndexValue *value_of(const Record &record, std::uint16_t index) {
    for (std::uint8_t i = 0; i < record.num_entries; ++i) {
        const IndexValueId &id = record.entries[i].posting->id;
        if (id.index == index) {
            return &id.value;
        }
    }
    return nullptr;
}

bool has(const Record &record, const Posting *posting) {
    return std::any_of(record.entries, record.entries + record.num_entries,
                       [posting](const IndexEntry &entry) { return entry.posting == posting; });
}

} // namespace

/* The plan ------------------------------------------------------------------------------------- */

QueryPlan::QueryPlan(const Selection &selection, std::uint32_t now_s)
    : selection_(selection), now_s_(now_s) {
    add_nodes(selection.where);
}

void QueryPlan::add_nodes(const Condition &condition) {
    const std::size_t at = nodes_.size();
    const bool is_one_value = condition.kind == Kind::comparison &&
                              condition.field == Field::index && condition.ranges.size() == 1 &&
                              condition.ranges.front().is_one_value();
    nodes_.push_back({&condition, at + 1, is_one_value, condition.negated});
    for (const Condition &part : condition.parts) {
        add_nodes(part);
    }
    nodes_[at].end = nodes_.size();
}

void QueryPlan::find_postings() {
    for (Node &node : nodes_) {
        if (node.is_one_value) {
            const Condition &comparison = *node.condition;
            node.posting = index_->find({comparison.index, comparison.ranges.front().low});
        }
    }
}

/* Calls visit(node) for every condition on the way that expect() has chosen. */
template <typename Visit>
void QueryPlan::follow_choice(std::size_t at, Visit visit) const {
    visit(at);
    switch (nodes_[at].condition->kind) {
    case Kind::all_of:
        follow_choice(nodes_[at].cheapest, visit);
        break;
    case Kind::any_of:
        for (std::size_t part = at + 1; part < nodes_[at].end; part = nodes_[part].end) {
            follow_choice(part, visit);
        }
        break;
    case Kind::comparison:
        break;
    }
}

bool QueryPlan::bind(ObjectIndex &index, std::size_t num_records) {
    index_ = &index;
    sources_.clear();
    may_count_ = max_counted;
    find_postings();
    for (std::uint64_t enough = first_try;; enough *= patience) {
        enough = std::min<std::uint64_t>(enough, num_records);
        if (expect(0, enough) < enough) {
            follow_choice(0, [this](std::size_t at) {
                if (nodes_[at].condition->kind == Kind::comparison) {
                    sources_.push_back(at);
                }
            });
            return true;
        }
        if (enough == num_records || may_count_ == 0) {
            return false;
        }
    }
}

/* How many records looking a condition up would give; at least `enough` when it cannot be looked
 * up, or would give that many. */
std::uint64_t QueryPlan::expect(std::size_t at, std::uint64_t enough) {
    switch (nodes_[at].condition->kind) {
    case Kind::all_of:
        return expect_all_of(at, enough);
    case Kind::any_of:
        return expect_any_of(at, enough);
    case Kind::comparison:
        break;
    }
    return expect_comparison(at, enough);
}

std::uint64_t QueryPlan::expect_all_of(std::size_t at, std::uint64_t enough) {
    std::uint64_t fewest = enough;
    for (std::size_t part = at + 1; part < nodes_[at].end; part = nodes_[part].end) {
        const std::uint64_t num_records = expect(part, fewest);
        if (num_records < fewest) {
            fewest = num_records;
            nodes_[at].cheapest = part;
        }
    }
    return fewest;
}

std::uint64_t QueryPlan::expect_any_of(std::size_t at, std::uint64_t enough) {
    std::uint64_t sum = 0;
    for (std::size_t part = at + 1; part < nodes_[at].end && sum < enough;
         part = nodes_[part].end) {
        sum += expect(part, enough - sum);
    }
    return sum;
}

std::uint64_t QueryPlan::expect_comparison(std::size_t at, std::uint64_t enough) {
    const Node &node = nodes_[at];
    if (!can_look_up(*node.condition)) {
        return enough;
    }
    if (node.is_one_value) {
        return node.posting == nullptr ? 0 : node.posting->length;
    }
    if (may_count_ == 0) {
        return enough;
    }
    const std::uint64_t before = num_examined_;
    const std::uint64_t num_records = count_values(*node.condition, enough);
    may_count_ -= std::min(may_count_, num_examined_ - before);
    return num_records;
}

/* How many records have a value of a comparison with an index; counting stops at `enough`. */
std::uint64_t QueryPlan::count_values(const Condition &comparison, std::uint64_t enough) {
    std::uint64_t sum = 0;
    index_->visit_postings(comparison, [&](const Posting &posting) {
        ++num_examined_;
        sum += posting.length;
        return sum < enough;
    });
    return sum;
}

std::size_t QueryPlan::num_testable() const {
    return std::max<std::size_t>(max_tested / nodes_.size(), 1);
}

/* Tests ---------------------------------------------------------------------------------------- */

bool QueryPlan::holds(const Node &node, const Record &record) const {
    /* Nearly all that queries of index terms consist of, hence first, and without a call below. */
    const auto single_value_holds = [&record](const Node &single) {
        return has(record, single.posting) != single.negated;
    };
    if (node.is_one_value) {
        return single_value_holds(node);
    }
    if (node.condition->kind == Kind::comparison) {
        return comparison_holds(node, record) != node.negated;
    }
    /* One part with this outcome decides. */
    const bool decisive = node.condition->kind == Kind::any_of;
    const Node *const end = nodes_.data() + node.end;
    for (const Node *part = &node + 1; part < end; part = nodes_.data() + part->end) {
        const bool part_holds =
            part->is_one_value ? single_value_holds(*part) : holds(*part, record);
        if (part_holds == decisive) {
            return decisive;
        }
    }
    return !decisive;
}

/* The comparison without its negation. */
bool QueryPlan::comparison_holds(const Node &node, const Record &record) const {
    if (node.is_one_value) {
        return has(record, node.posting);
    }
    const Condition &comparison = *node.condition;
    switch (comparison.field) {
    case Field::size:
        return in_ranges(comparison, {{record.length(), 0, 0, 0}});
    case Field::age:
        /* A record may have been stored after the query began. */
        return in_ranges(comparison, {{now_s_ - std::min(record.stored_s, now_s_), 0, 0, 0}});
    case Field::index:
        break;
    }
    const IndexValue *value = value_of(record, comparison.index);
    return value != nullptr && in_ranges(comparison, *value);
}

/* The survey ----------------------------------------------------------------------------------- */

QuerySurvey::QuerySurvey(const Selection &selection, std::uint32_t now_s)
    : plan_(selection, now_s), expected_(plan_.nodes_.size()), looked_up_(plan_.nodes_.size()) {}

void QuerySurvey::add(ObjectIndex &index, std::size_t num_records,
                      std::span<const Record *const> examples) {
    if (plan_.bind(index, num_records)) {
        plan_.follow_choice(0, [&](std::size_t at) { looked_up_[at] += num_records; });
    }
    num_objects_ += num_records;
    for (std::size_t at = 0; at < expected_.size(); ++at) {
        if (plan_.nodes_[at].condition->kind == Kind::comparison) {
            expected_[at] += expect_comparison(at, num_records, examples);
        }
    }
}

std::uint64_t QuerySurvey::expect_comparison(std::size_t at, std::size_t num_records,
                                             std::span<const Record *const> examples) {
    const QueryPlan::Node &node = plan_.nodes_[at];
    if (node.condition->field == Field::index) {
        const std::uint64_t sum = plan_.count_values(*node.condition, UINT64_MAX);
        return node.condition->negated ? num_records - sum : sum;
    }
    if (examples.empty()) {
        return 0;
    }
    const auto num_holding = static_cast<std::uint64_t>(
        std::count_if(examples.begin(), examples.end(), [&](const Record *record) {
            return plan_.holds(plan_.nodes_[at], *record);
        }));
    return num_records * num_holding / examples.size();
}

/* How many objects a condition holds for, at most. */
std::uint64_t QuerySurvey::expected(std::size_t at) const {
    const QueryPlan::Node &node = plan_.nodes_[at];
    if (node.condition->kind == Kind::comparison) {
        return expected_[at];
    }
    const bool all = node.condition->kind == Kind::all_of;
    std::uint64_t number = all ? num_objects_ : 0;
    for (std::size_t part = at + 1; part < node.end; part = plan_.nodes_[part].end) {
        number = all ? std::min(number, expected(part)) : number + expected(part);
    }
    return std::min(number, num_objects_);
}

Explanation QuerySurvey::explain() const {
    Explanation explanation;
    explanation.num_objects = num_objects_;
    explanation.expected = expected(0);
    const auto access = 2 * looked_up_.front() > num_objects_ ? Explanation::Access::looked_up
                                                              : Explanation::Access::scanned;
    if (plan_.nodes_.front().condition->kind == Kind::all_of) {
        describe_parts(0, 0, access, explanation);
    } else {
        describe(0, 0, access, explanation);
    }
    return explanation;
}

void QuerySurvey::describe(std::size_t at, unsigned int level, Explanation::Access access,
                           Explanation &explanation) const {
    const Condition &condition = *plan_.nodes_[at].condition;
    explanation.steps.push_back({level, condition.kind, condition.text, expected(at), access});
    describe_parts(at, level + 1, access, explanation);
}

/* In the order of their use, which is that of the objects they give. Of an all_of that is looked
 * up, only one part is, for most objects; it comes first, and the others are tested. */
void QuerySurvey::describe_parts(std::size_t at, unsigned int level, Explanation::Access access,
                                 Explanation &explanation) const {
    std::vector<std::size_t> parts;
    for (std::size_t part = at + 1; part < plan_.nodes_[at].end; part = plan_.nodes_[part].end) {
        parts.push_back(part);
    }
    std::stable_sort(parts.begin(), parts.end(),
                     [&](std::size_t a, std::size_t b) { return expected(a) < expected(b); });
    const bool one_is_looked_up = plan_.nodes_[at].condition->kind == Kind::all_of &&
                                  access == Explanation::Access::looked_up;
    if (one_is_looked_up) {
        const auto chosen =
            std::max_element(parts.begin(), parts.end(), [&](std::size_t a, std::size_t b) {
                return looked_up_[a] < looked_up_[b];
            });
        std::rotate(parts.begin(), chosen, chosen + 1);
    }
    for (const std::size_t part : parts) {
        const bool only_tested = one_is_looked_up && part != parts.front();
        describe(part, level, only_tested ? Explanation::Access::tested : access, explanation);
    }
}

} // namespace store
