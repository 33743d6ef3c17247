/* Every operation finds the shard of its key, which does the rest; sets of objects are what the
 * shards have, one after the other. */
#include "embedded/embedded_objects.h"

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

/* A shard is a piece, or what can be tested of it within about a millisecond. */
class EmbeddedScan final : public Scan {
public:
    EmbeddedScan(Shards &shards, std::vector<std::uint32_t> app_ids, const Selection &selection,
                 const Part *part, std::uint32_t now_s)
        : shards_(shards), app_ids_(std::move(app_ids)), plan_(selection, now_s),
          slots_(part != nullptr && !part->is_whole ? SlotSet(part->slots) : SlotSet()) {}

    /* Keys spread evenly: by those of the first shard, and some more. */
    std::uint64_t expected() const override {
        std::size_t first = 0;
        while (first < num_shards && !slots_.touches(first)) {
            ++first;
        }
        std::uint64_t num_records = 0;
        for (const std::uint32_t app_id : app_ids_) {
            num_records +=
                plan_.selects_all() && first < num_shards ? shards_[first].num_records(app_id) : 0;
        }
        return num_records * slots_.num_shards_touched() * 9 / 8;
    }

    Status next(std::vector<Key> &keys, bool &more_out) override {
        if (!untested_.empty()) {
            shard_at(next_ - 1).collect_some(app_id_at(next_ - 1), plan_, keys, untested_);
        } else {
            begin_shard(keys);
        }
        more_out = !untested_.empty() || next_ < end();
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
    : context_{clock, configuration.lock_lease, budget_, waiters_, sweeper_},
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

std::uint64_t EmbeddedObjects::num_records(std::uint32_t app_id) {
    std::uint64_t num = 0;
    for (const std::uint32_t each : app_ids_of(app_id)) {
        for (Shard &shard : shards_) {
            num += shard.num_records(each);
        }
    }
    return num;
}

Status EmbeddedObjects::scan(const Selection &selection, const Part *part,
                             std::unique_ptr<Scan> &scan_out) {
    scan_out = std::make_unique<EmbeddedScan>(shards_, app_ids_of(selection.app_id), selection,
                                              part, second_of(context_.clock.now()));
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
