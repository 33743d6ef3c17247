/* Every operation finds the shard of its key, which does the rest; sets of objects are what the
 * shards have, one after the other. */
#include "embedded/embedded_objects.h"

#include <algorithm>

namespace store {

namespace {

Totals sum_up(const std::vector<Partition *> &partitions) {
    Totals sum;
    for (Partition *partition : partitions) {
        for (Shard &shard : partition->shards) {
            const Totals totals = shard.totals();
            sum.num_objects += totals.num_objects;
            sum.num_bytes += totals.num_bytes;
        }
    }
    return sum;
}

/* `operation(shard, hash)` on the shard of the key; without its partition there is no such object.
 */
template <typename Operation>
Status with_shard(const PartitionDirectory &directory, const Key &key, Operation operation) {
    Partition *partition = directory.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return operation(partition->shard_of(hash), hash);
}

/* A shard is a piece, or what can be tested of it within about a millisecond. */
class EmbeddedScan final : public Scan {
public:
    EmbeddedScan(std::vector<Partition *> partitions, const Selection &selection, const Part *part,
                 std::uint32_t now_s)
        : partitions_(std::move(partitions)), plan_(selection, now_s),
          slots_(part != nullptr ? SlotSet(part->slots) : SlotSet()) {}

    std::uint64_t expected() const override {
        std::uint64_t num_objects = 0;
        for (Partition *partition : partitions_) {
            num_objects += plan_.selects_all() ? partition->num_records(slots_) : 0;
        }
        return num_objects;
    }

    Status next(std::vector<Key> &keys, bool &more_out) override {
        if (!untested_.empty()) {
            shard_->collect_some(plan_, keys, untested_);
        } else {
            begin_shard(keys);
        }
        more_out = !untested_.empty() || next_ < end();
        return OMRALIB_RET_SUCCESS;
    }

    std::uint64_t num_examined() const override { return plan_.num_examined(); }

private:
    std::size_t end() const { return partitions_.size() * num_shards; }

    void begin_shard(std::vector<Key> &keys) {
        while (next_ < end() && !slots_.touches(next_ % num_shards)) {
            ++next_;
        }
        if (next_ < end()) {
            const std::size_t index = next_ % num_shards;
            shard_ = &partitions_[next_ / num_shards]->shards[index];
            ++next_;
            shard_->collect(plan_, slots_.holds_all_of(index) ? nullptr : &slots_, keys, untested_);
        }
    }

    const std::vector<Partition *> partitions_;
    QueryPlan plan_;
    const SlotSet slots_;
    std::size_t next_ = 0; /* shard, counted through the partitions */
    Shard *shard_ = nullptr;
    std::vector<RecordRef> untested_; /* of that shard */
};

} // namespace

EmbeddedObjects::EmbeddedObjects(Clock &clock, const Configuration &configuration)
    : context_{clock, configuration.lock_lease, budget_, waiters_, sweeper_},
      budget_(configuration.memory_limit), waiters_(clock), directory_(context_),
      sweeper_(clock, directory_) {}

/* One object ---------------------------------------------------------------------------------- */

/* Unlike any other ticket until 2^31 - 1 more locks have been taken, and never 0. */
int EmbeddedObjects::next_ticket() {
    return static_cast<int>(last_ticket_.fetch_add(1, std::memory_order_relaxed) % INT32_MAX) + 1;
}

Status EmbeddedObjects::create(const Key &key, const ObjectSpec &spec) {
    const std::uint64_t hash = hash_of(key);
    Shard &shard = directory_.find_or_add(key.app_id).shard_of(hash);
    return shard.create(make_record(key, spec.timeout_m, spec.bytes), hash, spec.values);
}

Status EmbeddedObjects::read(const Key &key, bool renew, Content &content_out) {
    return with_shard(directory_, key, [&](Shard &shard, std::uint64_t hash) {
        return shard.read(key, hash, renew, content_out);
    });
}

Status EmbeddedObjects::read_and_lock(const Key &key, bool renew, Millis patience, int &ticket_out,
                                      Content &content_out) {
    return with_shard(directory_, key, [&](Shard &shard, std::uint64_t hash) {
        const int ticket = next_ticket();
        const auto attempt = [&](bool mark) {
            return shard.lock(key, hash, renew, ticket, mark, content_out);
        };
        Status status = attempt(false);
        if (status == OMRALIB_ERR_OBJ_LOCKED && patience > 0) {
            status = waiters_.try_until_free(key, patience, [&] { return attempt(true); });
        }
        if (status == OMRALIB_RET_SUCCESS) {
            ticket_out = ticket;
        }
        return status;
    });
}

Status EmbeddedObjects::renew_lock(const Key &key, int ticket) {
    return with_shard(directory_, key, [&](Shard &shard, std::uint64_t hash) {
        return shard.renew_lock(key, hash, ticket);
    });
}

Status EmbeddedObjects::update(const Key &key, int ticket, bool unlock, bool renew, Bytes bytes) {
    return with_shard(directory_, key, [&](Shard &shard, std::uint64_t hash) {
        return shard.update(key, hash, ticket, unlock, renew, bytes);
    });
}

Status EmbeddedObjects::unlock(const Key &key, int ticket) {
    return with_shard(directory_, key, [&](Shard &shard, std::uint64_t hash) {
        return shard.unlock(key, hash, ticket);
    });
}

Status EmbeddedObjects::replace(const Key &key, const ObjectSpec &spec) {
    return with_shard(directory_, key, [&](Shard &shard, std::uint64_t hash) {
        return shard.replace(make_record(key, spec.timeout_m, spec.bytes), hash, spec.values);
    });
}

Status EmbeddedObjects::remove(const Key &key) {
    return with_shard(directory_, key,
                      [&](Shard &shard, std::uint64_t hash) { return shard.remove(key, hash); });
}

Status EmbeddedObjects::exists(const Key &key) {
    return with_shard(directory_, key,
                      [&](Shard &shard, std::uint64_t hash) { return shard.exists(key, hash); });
}

Status EmbeddedObjects::touch(const Key &key) {
    return with_shard(directory_, key,
                      [&](Shard &shard, std::uint64_t hash) { return shard.touch(key, hash); });
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

std::vector<Partition *> EmbeddedObjects::partitions_of(std::uint32_t app_id) const {
    if (app_id == OMRALIB_ALL_APP_IDS) {
        std::vector<Partition *> partitions = directory_.all();
        std::erase_if(partitions, [](const Partition *partition) {
            return partition->app_id > last_ordinary_app_id;
        });
        return partitions;
    }
    Partition *partition = directory_.find(app_id);
    return partition != nullptr ? std::vector{partition} : std::vector<Partition *>{};
}

std::uint64_t EmbeddedObjects::num_records(std::uint32_t app_id) const {
    std::uint64_t num = 0;
    for (Partition *partition : partitions_of(app_id)) {
        num += partition->num_records(SlotSet());
    }
    return num;
}

Status EmbeddedObjects::scan(const Selection &selection, const Part *part,
                             std::unique_ptr<Scan> &scan_out) {
    scan_out = std::make_unique<EmbeddedScan>(partitions_of(selection.app_id), selection, part,
                                              second_of(context_.clock.now()));
    return OMRALIB_RET_SUCCESS;
}

Status EmbeddedObjects::explain(const Selection &selection, Explanation &explanation_out) {
    QuerySurvey survey(selection, second_of(context_.clock.now()));
    for (Partition *partition : partitions_of(selection.app_id)) {
        for (Shard &shard : partition->shards) {
            shard.survey(survey);
        }
    }
    explanation_out = survey.explain();
    return OMRALIB_RET_SUCCESS;
}

Status EmbeddedObjects::totals_of(std::uint32_t app_id, Totals &totals_out) {
    totals_out = sum_up(partitions_of(app_id));
    return OMRALIB_RET_SUCCESS;
}

Status EmbeddedObjects::totals(Totals &totals_out) {
    totals_out = sum_up(directory_.all());
    return OMRALIB_RET_SUCCESS;
}

Status EmbeddedObjects::activity(Activity &activity_out) {
    activity_out = {sweeper_.num_expired(), waiters_.num_waits()};
    return OMRALIB_RET_SUCCESS;
}

} // namespace store
