/* Every operation finds the shard of its key, which does the rest; sets of objects are what the
 * shards have, one after the other. */
#include "embedded/embedded_objects.h"

#include <algorithm>
#include <set>
#include <utility>

namespace store {

namespace {

void add(Totals &sum, const Totals &totals) {
    sum.num_objects += totals.num_objects;
    sum.num_bytes += totals.num_bytes;
}

template <std::size_t... I>
Shards make_shards(const ShardContext &context, std::index_sequence<I...>) {
    return {{(static_cast<void>(I), Shard(context))...}};
}

SlotSet slots_in(const Part *part) {
    return part != nullptr && !part->is_whole ? SlotSet(part->slots) : SlotSet();
}

/* Records that are kept in memory although they may be removed or replaced meanwhile. */
class HeldRecords final : public AtHand {
public:
    explicit HeldRecords(std::vector<RecordRef> records) : records_(std::move(records)) {}

    bool read(std::size_t place, Content &content_out) override {
        constexpr std::size_t ahead = 6;
        if (place + ahead < records_.size()) {
            bring_into_reach(records_[place + ahead].get());
        }
        Record *record = records_[place].get();
        if (record == nullptr || !record->is_stored.load(std::memory_order_acquire)) {
            return false;
        }
        content_out = Content(record->bytes(), record, [](void *) {});
        return true;
    }

private:
    static void bring_into_reach(const Record *record) {
        const auto *lines = reinterpret_cast<const std::byte *>(record);
        for (std::size_t offset = 0; record != nullptr && offset < 192; offset += 64) {
            __builtin_prefetch(lines + offset);
        }
    }

    const std::vector<RecordRef> records_;
};

/* All records of some app ids, along their lists. */
class ListScan final : public Scan {
public:
    ListScan(std::vector<std::shared_ptr<RecordList>> lists, std::uint32_t sample, const Part *part,
             const Clock &clock)
        : lists_(std::move(lists)), sample_(sample), slots_(slots_in(part)), clock_(clock) {
        places_.reserve(lists_.size());
        for (const auto &list : lists_) {
            places_.push_back(list->begin_scan());
            num_unvisited_ += list->size();
        }
    }

    std::uint64_t expected() const override { return num_unvisited_ * slots_.size() / num_slots; }

    Status next(std::size_t max_keys, bool hold, ScanPiece &piece) override {
        constexpr std::size_t max_records = 4096;
        constexpr int max_rounds = 16; /* along a list with few records */
        const std::size_t max = std::min({max_keys, max_records, num_unvisited_});
        const Millis now = clock_.now();
        std::vector<RecordRef> held;
        piece.keys.reserve(piece.keys.size() + max);
        held.reserve(hold ? max : 0);
        const auto give = [&](Record &record) {
            if (record.is_expired(now) || !in_sample(record.key, sample_)) {
                return;
            }
            piece.keys.push_back(record.key);
            if (hold) {
                held.push_back(is_worth_holding(record) ? RecordRef::share(record) : RecordRef());
            }
        };
        std::size_t num_left = max;
        for (int i = 0; i < max_rounds && num_left != 0 && current_ < lists_.size(); ++i) {
            if (!lists_[current_]->go_on(places_[current_], num_left, slots_, give)) {
                ++current_;
            }
        }
        num_examined_ += max - num_left;
        num_unvisited_ -= max - num_left;
        piece.is_last = num_unvisited_ == 0 || current_ == lists_.size();
        if (hold) {
            sort(piece.keys, held);
            piece.at_hand = std::make_unique<HeldRecords>(std::move(held));
        }
        return OMRALIB_RET_SUCCESS;
    }

    std::uint64_t num_examined() const override { return num_examined_; }

private:
    /* Those with a time-out are not the same from one moment to the next, and large ones cost more
     * to keep than to find. */
    static bool is_worth_holding(const Record &record) {
        constexpr std::uint32_t large = 4096;
        return record.timeout_m == 0 && record.length() <= large;
    }

    /* Into key order, in which they mostly are. */
    static void sort(std::vector<Key> &keys, std::vector<RecordRef> &held) {
        if (std::is_sorted(keys.begin(), keys.end(), KeyLess())) {
            return;
        }
        std::vector<std::pair<Key, std::size_t>> order(keys.size());
        for (std::size_t i = 0; i < keys.size(); ++i) {
            order[i] = {keys[i], i};
        }
        std::sort(order.begin(), order.end(),
                  [](const auto &a, const auto &b) { return order_of(a.first, b.first) < 0; });
        std::vector<RecordRef> sorted(held.size());
        for (std::size_t i = 0; i < order.size(); ++i) {
            keys[i] = order[i].first;
            sorted[i] = std::move(held[order[i].second]);
        }
        held = std::move(sorted);
    }

    const std::vector<std::shared_ptr<RecordList>> lists_;
    const std::uint32_t sample_;
    const SlotSet slots_;
    const Clock &clock_;
    std::vector<RecordList::Place> places_;
    std::size_t current_ = 0;
    std::size_t num_unvisited_ = 0; /* records, at most, in slots or not */
    std::uint64_t num_examined_ = 0;
};

/* The records for which a query holds, from shard to shard: a piece is what one has, or what can be
 * tested of it within about a millisecond. */
class QueryScan final : public Scan {
public:
    QueryScan(Shards &shards, std::vector<std::uint32_t> app_ids, const Selection &selection,
              const Part *part, std::uint32_t now_s)
        : shards_(shards), app_ids_(std::move(app_ids)), plan_(selection, now_s),
          slots_(slots_in(part)) {}

    std::uint64_t expected() const override { return 0; }

    Status next(std::size_t, bool, ScanPiece &piece) override {
        if (!untested_.empty()) {
            shard_at(next_ - 1).collect_some(app_id_at(next_ - 1), plan_, piece.keys, untested_);
        } else {
            begin_shard(piece.keys);
        }
        piece.is_last = untested_.empty() && next_ == end();
        return OMRALIB_RET_SUCCESS;
    }

    std::uint64_t num_examined() const override { return plan_.num_examined(); }

private:
    /* Places: the shards, once for each app id. */
    std::size_t end() const { return app_ids_.size() * num_shards; }
    Shard &shard_at(std::size_t place) const { return shards_[place % num_shards]; }
    std::uint32_t app_id_at(std::size_t place) const { return app_ids_[place / num_shards]; }

    void begin_shard(std::vector<Key> &keys) {
        while (next_ < end() && !slots_.touches(next_ % num_shards)) {
            ++next_;
        }
        if (next_ < end()) {
            const std::size_t place = next_++;
            const bool is_whole = slots_.holds_all_of(place % num_shards);
            shard_at(place).collect(app_id_at(place), plan_, is_whole ? nullptr : &slots_, keys,
                                    untested_);
        }
    }

    Shards &shards_;
    const std::vector<std::uint32_t> app_ids_;
    QueryPlan plan_;
    const SlotSet slots_;
    std::size_t next_ = 0;            /* place */
    std::vector<RecordRef> untested_; /* of the last one */
};

} // namespace

EmbeddedObjects::EmbeddedObjects(Clock &clock, const Configuration &configuration)
    : context_{clock, configuration.lock_lease, budget_, waiters_, lists_, sweeper_},
      budget_(configuration.memory_limit), waiters_(clock),
      shards_(make_shards(context_, std::make_index_sequence<num_shards>())),
      sweeper_(clock, shards_) {}

/* One object ---------------------------------------------------------------------------------- */

/* Unlike any other ticket until 2^31 - 1 more locks have been taken, and never 0. */
int EmbeddedObjects::next_ticket() {
    return static_cast<int>(last_ticket_.fetch_add(1, std::memory_order_relaxed) % INT32_MAX) + 1;
}

Status EmbeddedObjects::create(const Key &key, const ObjectSpec &spec) {
    const std::uint64_t hash = hash_of(key);
    return shard_of(hash).create(make_record(key, spec.timeout_m, spec.bytes), hash, spec.values);
}

Status EmbeddedObjects::read(const Key &key, bool renew, Content &content_out) {
    const std::uint64_t hash = hash_of(key);
    return shard_of(hash).read(key, hash, renew, content_out);
}

Status EmbeddedObjects::read_and_lock(const Key &key, bool renew, Millis patience, int &ticket_out,
                                      Content &content_out) {
    const std::uint64_t hash = hash_of(key);
    const int ticket = next_ticket();
    const auto attempt = [&](bool mark) {
        return shard_of(hash).lock(key, hash, renew, ticket, mark, content_out);
    };
    Status status = attempt(false);
    if (status == OMRALIB_ERR_OBJ_LOCKED && patience > 0) {
        status = waiters_.try_until_free(key, patience, [&] { return attempt(true); });
    }
    if (status == OMRALIB_RET_SUCCESS) {
        ticket_out = ticket;
    }
    return status;
}

Status EmbeddedObjects::renew_lock(const Key &key, int ticket) {
    const std::uint64_t hash = hash_of(key);
    return shard_of(hash).renew_lock(key, hash, ticket);
}

Status EmbeddedObjects::update(const Key &key, int ticket, bool unlock, bool renew, Bytes bytes) {
    const std::uint64_t hash = hash_of(key);
    return shard_of(hash).update(key, hash, ticket, unlock, renew, bytes);
}

Status EmbeddedObjects::unlock(const Key &key, int ticket) {
    const std::uint64_t hash = hash_of(key);
    return shard_of(hash).unlock(key, hash, ticket);
}

Status EmbeddedObjects::replace(const Key &key, const ObjectSpec &spec) {
    const std::uint64_t hash = hash_of(key);
    return shard_of(hash).replace(make_record(key, spec.timeout_m, spec.bytes), hash, spec.values);
}

Status EmbeddedObjects::remove(const Key &key) {
    const std::uint64_t hash = hash_of(key);
    return shard_of(hash).remove(key, hash);
}

Status EmbeddedObjects::exists(const Key &key) {
    const std::uint64_t hash = hash_of(key);
    return shard_of(hash).exists(key, hash);
}

Status EmbeddedObjects::touch(const Key &key) {
    const std::uint64_t hash = hash_of(key);
    return shard_of(hash).touch(key, hash);
}

Status EmbeddedObjects::copy(const Key &from, const Key &to, std::uint32_t timeout_m) {
    Content content;
    Status status = read(from, false, content);
    if (status == OMRALIB_RET_SUCCESS) {
        status = create(to, {content.bytes(), timeout_m, {}});
    }
    if (status == OMRALIB_RET_SUCCESS) {
        touch(from);
    }
    return status;
}

/* Sets of objects ----------------------------------------------------------------------------- */

/* Those that a selection of this app id asks for. */
std::vector<std::uint32_t> EmbeddedObjects::app_ids_of(std::uint32_t app_id) {
    if (app_id != OMRALIB_ALL_APP_IDS) {
        return {app_id};
    }
    std::set<std::uint32_t> all;
    for (Shard &shard : shards_) {
        shard.add_app_ids(all);
    }
    return {all.begin(), all.upper_bound(last_ordinary_app_id)};
}

/* The lists of those app ids. */
std::vector<std::shared_ptr<RecordList>> EmbeddedObjects::lists_of(std::uint32_t app_id) {
    std::vector<std::shared_ptr<RecordList>> lists;
    for (const std::uint32_t each : app_ids_of(app_id)) {
        if (std::shared_ptr<RecordList> list = lists_.find(each)) {
            lists.push_back(std::move(list));
        }
    }
    return lists;
}

Status EmbeddedObjects::num_records(std::uint32_t app_id, std::uint64_t &num_out) {
    std::uint64_t num = 0;
    for (const auto &list : lists_of(app_id)) {
        num += list->size();
    }
    num_out = num;
    return OMRALIB_RET_SUCCESS;
}

Status EmbeddedObjects::scan(const Selection &selection, const Part *part,
                             std::unique_ptr<Scan> &scan_out) {
    const bool is_query =
        selection.where.kind != Condition::Kind::all_of || !selection.where.parts.empty();
    if (is_query) {
        scan_out = std::make_unique<QueryScan>(shards_, app_ids_of(selection.app_id), selection,
                                               part, second_of(context_.clock.now()));
    } else {
        scan_out = std::make_unique<ListScan>(lists_of(selection.app_id), selection.sample, part,
                                              context_.clock);
    }
    return OMRALIB_RET_SUCCESS;
}

Status EmbeddedObjects::explain(const Selection &selection, Explanation &explanation_out) {
    QuerySurvey survey(selection, second_of(context_.clock.now()));
    for (const std::uint32_t app_id : app_ids_of(selection.app_id)) {
        for (Shard &shard : shards_) {
            shard.survey(app_id, survey);
        }
    }
    explanation_out = survey.explain();
    return OMRALIB_RET_SUCCESS;
}

Status EmbeddedObjects::totals_of(std::uint32_t app_id, Totals &totals_out) {
    Totals sum;
    for (const std::uint32_t each : app_ids_of(app_id)) {
        for (Shard &shard : shards_) {
            add(sum, shard.totals_of(each));
        }
    }
    totals_out = sum;
    return OMRALIB_RET_SUCCESS;
}

Status EmbeddedObjects::totals(Totals &totals_out) {
    Totals sum;
    for (Shard &shard : shards_) {
        add(sum, shard.totals());
    }
    totals_out = sum;
    return OMRALIB_RET_SUCCESS;
}

Status EmbeddedObjects::activity(Activity &activity_out) {
    activity_out = {sweeper_.num_expired(), waiters_.num_waits()};
    return OMRALIB_RET_SUCCESS;
}

} // namespace store
