/* Searching the buckets in waves: the next pages of many walks are read at the same time, then the
 * headers that they name, then the conditions are tested. */
#include "rados/rados_scan.h"

#include <algorithm>
#include <optional>

#include "engine/slots.h"

namespace store {

namespace {

using Kind = Condition::Kind;
using Field = Condition::Field;

/* Walks whose pages are read at the same time. */
constexpr std::size_t wave = 64;

/* Bytes that are read ahead for the keys of one piece. */
constexpr std::size_t max_brought = std::size_t{1} << 20;

/* Whether a condition holds for the object with this header. */
bool holds(const Condition &condition, const RecordHeader &header, Millis now) {
    const auto part_holds = [&](const Condition &part) { return holds(part, header, now); };
    if (condition.kind == Kind::all_of) {
        return std::all_of(condition.parts.begin(), condition.parts.end(), part_holds);
    }
    if (condition.kind == Kind::any_of) {
        return std::any_of(condition.parts.begin(), condition.parts.end(), part_holds);
    }
    bool is_in = false;
    if (condition.field == Field::size) {
        is_in = in_ranges(condition, {{header.length, 0, 0, 0}});
    } else if (condition.field == Field::age) {
        const auto age = std::max<Millis>(now - header.stored_at, 0) / millis_per_second;
        is_in = in_ranges(condition, {{static_cast<ULONGLONG>(age), 0, 0, 0}});
    } else {
        is_in =
            std::any_of(header.values.begin(), header.values.end(), [&](const OMRA_OBJ_INDEX &its) {
                return its.index == condition.index && in_ranges(condition, its.value);
            });
    }
    return is_in != condition.negated;
}

bool asks_for_single_values(const Condition &comparison) {
    return std::all_of(comparison.ranges.begin(), comparison.ranges.end(),
                       [](const ValueRange &range) { return range.is_one_value(); });
}

/* The comparisons by which a condition is looked up; nothing when it cannot be. */
std::optional<std::vector<const Condition *>> sources_of(const Condition &condition) {
    if (condition.kind == Kind::comparison) {
        if (condition.field != Field::index || condition.negated) {
            return std::nullopt;
        }
        return std::vector{&condition};
    }
    std::optional<std::vector<const Condition *>> chosen;
    if (condition.kind == Kind::any_of) {
        chosen.emplace();
    }
    for (const Condition &part : condition.parts) {
        auto its = sources_of(part);
        if (condition.kind == Kind::any_of) {
            if (!its) {
                return std::nullopt;
            }
            chosen->insert(chosen->end(), its->begin(), its->end());
        } else if (its && (!chosen || std::all_of(its->begin(), its->end(), [](const auto *source) {
                       return asks_for_single_values(*source);
                   }))) {
            chosen = std::move(its);
        }
    }
    return chosen;
}

std::string common_prefix(const std::string &a, const std::string &b) {
    return {a.begin(), std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first};
}

/* The part of an index entry's name that stands in front of the key. */
std::string_view value_part(const std::string &name) {
    return std::string_view(name).substr(0, name.size() - key_name_length);
}

/* What was read ahead: the bytes of some keys, as they were when the piece was given. */
class BroughtData final : public AtHand {
public:
    struct Object {
        Key key;
        WriteMarks::Mark mark;
        bool is_there = false;
        std::string bytes = {};
    };

    BroughtData(const WriteMarks &marks, std::vector<Object> objects)
        : marks_(marks), objects_(std::move(objects)) {}

    bool read(std::size_t place, Content &content_out) override {
        Object &object = objects_[place];
        if (!object.is_there || object.mark != marks_.of(object.key)) {
            return false;
        }
        content_out = Content(std::as_bytes(std::span(object.bytes)), &object, [](void *) {});
        return true;
    }

private:
    const WriteMarks &marks_;
    std::vector<Object> objects_;
};

} // namespace

/* Walks -----------------------------------------------------------------------------------------
 */

RadosScan::RadosScan(Pool &pool, const Wall &wall, const WriteMarks &marks,
                     std::span<const std::uint32_t> app_ids, const Selection &selection,
                     const Part *part)
    : pool_(pool), wall_(wall), marks_(marks), selection_(selection) {
    if (part != nullptr && !part->is_whole) {
        slots_.emplace();
        for (const std::uint32_t slot : part->slots) {
            if (slot < num_slots) {
                slots_->set(slot);
            }
        }
    }
    sources_ = sources_of(selection.where);
    for (const std::uint32_t app_id : app_ids) {
        for (std::uint32_t number = 0; number < pool.num_buckets(); ++number) {
            begin_bucket({app_id, number});
        }
    }
}

void RadosScan::begin_bucket(const Bucket &bucket) {
    const std::uint32_t first_slot = bucket.number * pool_.slots_per_bucket();
    bool is_touched = !slots_;
    for (std::uint32_t i = 0; !is_touched && i < pool_.slots_per_bucket(); ++i) {
        is_touched = slots_->test(first_slot + i);
    }
    if (!is_touched) {
        return;
    }
    if (!sources_) {
        walks_.push_back({.bucket = bucket, .source = 0, .after = "h", .prefix = "h"});
        return;
    }
    for (std::size_t source = 0; source < sources_->size(); ++source) {
        begin_walks(bucket, source);
    }
}

/* One for each range; index entries stand in the order of numbers, so that ranges of bytes are
 * looked for among all values of the index. */
void RadosScan::begin_walks(const Bucket &bucket, std::size_t source) {
    const Condition &comparison = *(*sources_)[source];
    if (comparison.order == ValueOrder::bytes && !asks_for_single_values(comparison)) {
        const std::string all = index_name(comparison.index);
        walks_.push_back({.bucket = bucket, .source = source, .after = all, .prefix = all});
        return;
    }
    for (const ValueRange &range : comparison.ranges) {
        const std::string first = index_name(comparison.index, range.low);
        const std::string last = index_name(comparison.index, range.high);
        walks_.push_back({.bucket = bucket,
                          .source = source,
                          .after = first,
                          .last = last,
                          .prefix = common_prefix(first, last)});
    }
}

/* The next pages of a wave of walks; what they give comes to found_. Answers as Pool does. */
int RadosScan::read_pages() {
    const std::size_t num = std::min(wave, walks_.size());
    Reads pages(pool_);
    for (std::size_t i = 0; i < num; ++i) {
        Walk &walk = walks_[i];
        walk.page.clear();
        pages.list(walk.bucket.name(), walk.after, walk.prefix, walk.page, walk.more);
    }
    if (const int answer = pages.wait(); answer != 0) {
        return answer;
    }
    Reads headers(pool_);
    for (std::size_t i = 0; i < num; ++i) {
        Walk &walk = walks_[i];
        if (!walk.page.empty()) {
            walk.after = walk.page.rbegin()->first;
        }
        if (!sources_) {
            continue;
        }
        std::set<std::string> wanted;
        for (const auto &[name, nothing] : walk.page) {
            if (!walk.last.empty() && value_part(name) > walk.last) {
                walk.more = false;
                break;
            }
            if (in_ranges(*(*sources_)[walk.source], value_of_name(name))) {
                wanted.insert(entry_name('h', key_part(name)));
            }
        }
        num_examined_ += walk.page.size();
        walk.page.clear();
        if (!wanted.empty()) {
            headers.get(walk.bucket.name(), wanted, walk.page);
        }
    }
    if (const int answer = headers.wait(); answer != 0) {
        return answer;
    }
    for (std::size_t i = 0; i < num; ++i) {
        if (std::vector<Found> found = test_page(walks_[i]); !found.empty()) {
            found_.push_back(std::move(found));
        }
    }
    /* Those that go on come first, so that few are in the middle of their buckets. */
    const auto end = walks_.begin() + static_cast<std::ptrdiff_t>(num);
    walks_.erase(std::remove_if(walks_.begin(), end, [](const Walk &walk) { return !walk.more; }),
                 end);
    return 0;
}

/* The objects of the headers of a page, in key order. */
std::vector<RadosScan::Found> RadosScan::test_page(Walk &walk) {
    std::vector<Found> found;
    for (const auto &[name, value] : walk.page) {
        ++num_examined_;
        Found each{key_of_name(key_part(name), walk.bucket.app_id), {}};
        if (decode(value, each.header) && is_wanted(walk, each)) {
            found.push_back(std::move(each));
        }
    }
    walk.page.clear();
    return found;
}

bool RadosScan::is_wanted(const Walk &walk, const Found &found) const {
    const Millis now = wall_.now();
    if (found.header.is_expired(now) || !in_sample(found.key, selection_.sample) ||
        (slots_ && !slots_->test(slot_of(hash_of(found.key)))) ||
        !holds(selection_.where, found.header, now)) {
        return false;
    }
    /* What several comparisons give is given by the first of them. */
    return !sources_ ||
           std::none_of(sources_->begin(),
                        sources_->begin() + static_cast<std::ptrdiff_t>(walk.source),
                        [&](const Condition *source) { return holds(*source, found.header, now); });
}

/* Pieces ----------------------------------------------------------------------------------------
 */

Status RadosScan::next(std::size_t max_keys, bool hold, ScanPiece &piece) {
    if (found_.empty() && !walks_.empty()) {
        if (const int answer = read_pages(); answer != 0) {
            return status_of(answer);
        }
    }
    std::vector<Found> given;
    while (!found_.empty() && given.size() < max_keys) {
        std::vector<Found> &page = found_.front();
        const auto end = page.begin() + static_cast<std::ptrdiff_t>(
                                            std::min(max_keys - given.size(), page.size()));
        std::move(page.begin(), end, std::back_inserter(given));
        page.erase(page.begin(), end);
        if (page.empty()) {
            found_.pop_front();
        }
    }
    if (hold) {
        std::sort(given.begin(), given.end(),
                  [](const Found &a, const Found &b) { return order_of(a.key, b.key) < 0; });
        if (const int answer = bring_data(given, piece); answer != 0) {
            return status_of(answer);
        }
    }
    for (const Found &found : given) {
        piece.keys.push_back(found.key);
    }
    piece.is_last = found_.empty() && walks_.empty();
    return OMRALIB_RET_SUCCESS;
}

/* Objects that have a time-out are not read ahead, since reading is a use of them. Answers as Pool
 * does. */
int RadosScan::bring_data(std::span<const Found> given, ScanPiece &piece) const {
    std::vector<BroughtData::Object> objects;
    std::map<std::string, std::pair<std::set<std::string>, Entries>> buckets;
    std::size_t length = 0;
    for (const Found &found : given) {
        objects.push_back({found.key, marks_.of(found.key)});
        if (found.header.timeout_m == 0 && found.header.is_inline() && length < max_brought) {
            buckets[pool_.bucket_of(found.key).name()].first.insert(entry_name('d', found.key));
            length += found.header.length;
        }
    }
    Reads reads(pool_);
    for (auto &[name, bucket] : buckets) {
        reads.get(name, bucket.first, bucket.second);
    }
    if (const int answer = reads.wait(); answer != 0) {
        return answer;
    }
    for (BroughtData::Object &object : objects) {
        const auto bucket = buckets.find(pool_.bucket_of(object.key).name());
        if (bucket == buckets.end()) {
            continue;
        }
        const Entries &entries = bucket->second.second;
        const auto entry = entries.find(entry_name('d', object.key));
        object.is_there = entry != entries.end();
        if (object.is_there) {
            object.bytes = entry->second;
        }
    }
    piece.at_hand = std::make_unique<BroughtData>(marks_, std::move(objects));
    return 0;
}

/* Explaining ------------------------------------------------------------------------------------
 */

namespace {

/* Adds the steps of a condition and its parts. What is looked up is, or what holds it. */
void describe(const Condition &condition, unsigned int level, Explanation::Access access,
              const std::function<std::uint64_t(const Condition &)> &expected,
              Explanation &explanation) {
    explanation.steps.push_back(
        {level, condition.kind, condition.text, expected(condition), access});
    for (const Condition &part : condition.parts) {
        describe(part, level + 1, access, expected, explanation);
    }
}

} // namespace

/* Counts what there is: as costly as the searches for the single conditions. */
Status explain_search(Pool &pool, const Wall &wall, const WriteMarks &marks,
                      std::span<const std::uint32_t> app_ids, const Selection &selection,
                      Explanation &explanation_out) {
    Status status = OMRALIB_RET_SUCCESS;
    const auto count = [&](const Condition &condition) {
        Selection of_it;
        of_it.where = condition;
        RadosScan scan(pool, wall, marks, app_ids, of_it, nullptr);
        ScanPiece piece;
        while (status == OMRALIB_RET_SUCCESS && !piece.is_last) {
            status = scan.next(SIZE_MAX, false, piece);
        }
        return static_cast<std::uint64_t>(piece.keys.size());
    };
    Explanation explanation;
    explanation.num_objects = count({});
    explanation.expected = count(selection.where);
    const auto access =
        sources_of(selection.where) ? Explanation::Access::looked_up : Explanation::Access::scanned;
    if (selection.where.kind == Kind::all_of) {
        for (const Condition &part : selection.where.parts) {
            describe(part, 0, access, count, explanation);
        }
    } else {
        describe(selection.where, 0, access, count, explanation);
    }
    if (status == OMRALIB_RET_SUCCESS) {
        explanation_out = std::move(explanation);
    }
    return status;
}

} // namespace store
