#include "embedded/query_plan.h"

#include <algorithm>

namespace store {

namespace {

using Kind = Condition::Kind;
using Field = Condition::Field;

/* The cost of what cannot be looked up. */
constexpr std::uint64_t impossible = UINT64_MAX;

/* Counting starts with this many records and goes on to `patience` times as many, and so on. */
constexpr std::uint64_t first_try = 8;
constexpr std::uint64_t patience = 4;

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

bool QueryPlan::bind(ObjectIndex &index, std::size_t num_records) {
    index_ = &index;
    sources_.clear();
    find_postings();
    for (std::uint64_t enough = first_try;; enough *= patience) {
        enough = std::min<std::uint64_t>(enough, num_records);
        if (expect(0, enough) < enough) {
            choose_sources(0);
            return true;
        }
        if (enough == num_records) {
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
    std::uint64_t sum = 0;
    index_->visit_postings(*node.condition, [&](const Posting &posting) {
        ++num_examined_;
        sum += posting.length;
        return sum < enough;
    });
    return sum;
}

/* Follows the choices that expect() has made. */
void QueryPlan::choose_sources(std::size_t at) {
    switch (nodes_[at].condition->kind) {
    case Kind::all_of:
        choose_sources(nodes_[at].cheapest);
        break;
    case Kind::any_of:
        for (std::size_t part = at + 1; part < nodes_[at].end; part = nodes_[part].end) {
            choose_sources(part);
        }
        break;
    case Kind::comparison:
        sources_.push_back(at);
        break;
    }
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

/* Whether one of the first `num_sources` sources gives the record too. One source never gives it
 * twice, since a record has at most one value of an index. */
bool QueryPlan::found_before(const Record &record, std::size_t num_sources) const {
    return std::any_of(sources_.begin(),
                       sources_.begin() + static_cast<std::ptrdiff_t>(num_sources),
                       [&](std::size_t at) { return comparison_holds(nodes_[at], record); });
}

/* The survey ----------------------------------------------------------------------------------- */

QuerySurvey::QuerySurvey(const Selection &selection, std::uint32_t now_s)
    : plan_(selection, now_s), expected_(plan_.nodes_.size()) {}

void QuerySurvey::add(ObjectIndex &index, std::size_t num_records,
                      std::span<const Record *const> examples) {
    plan_.index_ = &index;
    plan_.find_postings();
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
        std::uint64_t sum = 0;
        plan_.index_->visit_postings(*node.condition, [&](const Posting &posting) {
            sum += posting.length;
            return true;
        });
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

/* How many objects looking a condition up would give. */
std::uint64_t QuerySurvey::cost(std::size_t at) const {
    const QueryPlan::Node &node = plan_.nodes_[at];
    if (node.condition->kind == Kind::comparison) {
        return can_look_up(*node.condition) ? expected_[at] : impossible;
    }
    const bool all = node.condition->kind == Kind::all_of;
    std::uint64_t number = all ? impossible : 0;
    for (std::size_t part = at + 1; part < node.end; part = plan_.nodes_[part].end) {
        const std::uint64_t part_cost = cost(part);
        if (all) {
            number = std::min(number, part_cost);
        } else {
            number =
                part_cost == impossible || number == impossible ? impossible : number + part_cost;
        }
    }
    return number;
}

Explanation QuerySurvey::explain() const {
    Explanation explanation;
    explanation.num_objects = num_objects_;
    explanation.expected = expected(0);
    const std::uint64_t root_cost = cost(0);
    const bool look_up = root_cost != impossible && (root_cost < num_objects_ || root_cost == 0);
    const auto access = look_up ? Explanation::Access::looked_up : Explanation::Access::scanned;
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

/* The cheapest part first; of an all_of that is looked up, only this one is, and the others are
 * tested. */
void QuerySurvey::describe_parts(std::size_t at, unsigned int level, Explanation::Access access,
                                 Explanation &explanation) const {
    std::vector<std::size_t> parts;
    for (std::size_t part = at + 1; part < plan_.nodes_[at].end; part = plan_.nodes_[part].end) {
        parts.push_back(part);
    }
    const auto rank = [&](std::size_t part) {
        const std::uint64_t look_up_cost =
            access == Explanation::Access::looked_up ? cost(part) : impossible;
        return std::pair(look_up_cost, expected(part));
    };
    std::stable_sort(parts.begin(), parts.end(),
                     [&](std::size_t a, std::size_t b) { return rank(a) < rank(b); });
    const bool all = plan_.nodes_[at].condition->kind == Kind::all_of;
    for (const std::size_t part : parts) {
        const bool only_tested =
            all && access == Explanation::Access::looked_up && part != parts.front();
        describe(part, level, only_tested ? Explanation::Access::tested : access, explanation);
    }
}

} // namespace store
