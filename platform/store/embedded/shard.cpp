/* A shard under its lock: records, leases, time-outs. */
#include "embedded/shard.h"

#include <algorithm>

namespace store {

namespace {

/* What a changing operation reaps on its way: more than it can add, so that expired records cannot
 * pile up while a shard is in use. */
constexpr std::size_t reap_on_the_way = 4;

/* What is reaped under one holding of the lock. */
constexpr std::size_t reap_batch = 256;

std::uint64_t cost_of_record(const Record &record) {
    return cost_of(record.length(), record.num_entries);
}

std::uint64_t above(std::uint64_t a, std::uint64_t b) {
    return a > b ? a - b : 0;
}

} // namespace

Shard::~Shard() {
    for (auto &[app_id, section] : sections_) {
        for (const RecordTable::Place place : section.records.places()) {
            if (Record *record = place.record()) {
                section.index.detach(*record);
                record->release();
            }
        }
    }
}

/* Under the lock: records --------------------------------------------------------------------- */

bool Shard::is_expired(const Record &record) const {
    return record.timeout_m != 0 && record.is_expired(context_.clock.now());
}

/* nullptr when there is none; mostly the one of the operation before. */
Shard::Section *Shard::section_of(std::uint32_t app_id) {
    if (last_used_.second == nullptr || last_used_.first != app_id) {
        const auto found = sections_.find(app_id);
        if (found == sections_.end()) {
            return nullptr;
        }
        last_used_ = {app_id, &found->second};
    }
    return last_used_.second;
}

/* The section may have lost its last record: it goes when the next one does, since objects of some
 * app ids come and go one by one. */
void Shard::note_emptied(std::uint32_t app_id) {
    if (!section_of(app_id)->records.empty() || last_emptied_ == app_id) {
        return;
    }
    if (last_emptied_ && sections_.at(*last_emptied_).records.empty()) {
        sections_.erase(*last_emptied_);
    }
    last_emptied_ = app_id;
}

/* Expired or not. */
Record *Shard::find(const Key &key, std::uint64_t hash) {
    const Section *section = section_of(key.app_id);
    return section != nullptr ? section->records.find(key, hash) : nullptr;
}

Record *Shard::find_live(const Key &key, std::uint64_t hash) {
    Record *record = find(key, hash);
    return record != nullptr && !is_expired(*record) ? record : nullptr;
}

/* The record keeps its place in the expiry queue, which is then too early; reap() moves it on. */
void Shard::renew(Record &record) const {
    if (record.timeout_m != 0) {
        record.expires_at = context_.clock.now() + record.lifetime();
    }
}

void Shard::enqueue(Record &record) {
    if (record.timeout_m != 0) {
        expiry_.emplace_hint(expiry_.end(), record.expires_at.load(), &record);
        record.queued_at = record.expires_at.load();
        context_.expiry.on_due(record.queued_at);
    }
}

/* The place of a record in the queue; none for one without a time-out. */
Shard::ExpiryQueue::node_type Shard::take_place(const Record &record) {
    return record.timeout_m == 0
               ? ExpiryQueue::node_type()
               : expiry_.extract({record.queued_at, const_cast<Record *>(&record)});
}

/* Puts a place that was taken to use again, for the record and from this moment on. */
void Shard::give_place(ExpiryQueue::node_type place, Millis moment, Record &record) {
    if (place) {
        place.value() = {moment, &record};
        expiry_.insert(std::move(place));
        record.queued_at = moment;
    }
}

/* Brings a new record into the index and the expiry queue. Changes nothing when it throws. */
void Shard::join(Section &section, Record &fresh, std::span<const OMRA_OBJ_INDEX> values) {
    section.index.attach(fresh, values);
    fresh.stored_s = second_of(context_.clock.now());
    try {
        renew(fresh);
        enqueue(fresh);
    } catch (...) {
        section.index.detach(fresh);
        throw;
    }
}

/* Puts in a record whose key is free. Changes nothing when it throws. */
void Shard::insert(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values) {
    Section &section = sections_[fresh->key.app_id];
    try {
        section.records.make_room();
        if (section.list == nullptr) {
            section.list = context_.lists.get(fresh->key.app_id);
        }
        section.list->add(*fresh.get(), slot_of(hash));
        try {
            join(section, *fresh.get(), values);
        } catch (...) {
            section.list->remove(*fresh.get());
            throw;
        }
    } catch (...) {
        note_emptied(fresh->key.app_id);
        throw;
    }
    section.num_bytes += fresh->length();
    fresh->is_stored = true;
    section.records.insert(*fresh.detach(), hash);
}

/* Makes `fresh` the record of its key, and takes out the old one, which has left the index and the
 * expiry queue. */
RecordRef Shard::put_in_place_of(Section &section, Record &old, RecordRef fresh) {
    section.num_bytes += fresh->length();
    section.num_bytes -= old.length();
    old.is_stored = false;
    fresh->is_stored = true;
    section.list->replace(old, *fresh.get());
    section.records.replace(old, *fresh.detach(), hash_of(old.key));
    return RecordRef::adopt(&old);
}

/* Takes a record out of the shard, whatever holds it there. */
RecordRef Shard::take(Record &record) {
    context_.budget.refund(cost_of_record(record));
    take_place(record);
    end_lock(record);
    Section &section = *section_of(record.key.app_id);
    section.index.detach(record);
    section.num_bytes -= record.length();
    record.is_stored = false;
    section.list->remove(record);
    section.records.erase(record, hash_of(record.key));
    note_emptied(record.key.app_id);
    return RecordRef::adopt(&record);
}

/* Looks at up to `max_records` records whose turn in the expiry queue has come: drops the expired
 * and moves the renewed on. The turn of the next one. */
Millis Shard::reap(std::size_t max_records, ExpiredRecords &expired) {
    if (expiry_.empty()) {
        return never;
    }
    const Millis now = context_.clock.now();
    for (std::size_t i = 0; i < max_records; ++i) {
        const auto head = expiry_.begin();
        if (head == expiry_.end() || head->first > now) {
            break;
        }
        Record &record = *head->second;
        if (record.expires_at <= now) {
            expired.push(take(record));
        } else {
            give_place(take_place(record), record.expires_at, record);
        }
    }
    return expiry_.empty() ? never : expiry_.begin()->first;
}

/* Under the lock: leases ---------------------------------------------------------------------- */

bool Shard::is_locked(const Record &record) const {
    return record.ticket != OMRALIB_NULL_LOCK_TKT && holds(record, record.ticket);
}

/* Whether `ticket` is the record's and its lease is not over. */
bool Shard::holds(const Record &record, int ticket) const {
    if (record.ticket != ticket) {
        return false;
    }
    const auto lease = leases_.find(ticket);
    return lease != leases_.end() && lease->second.ends_at > context_.clock.now();
}

/* Leaves the record unlocked. True when somebody waits for that. */
bool Shard::end_lock(Record &record) {
    if (record.ticket == OMRALIB_NULL_LOCK_TKT) {
        return false;
    }
    const auto lease = leases_.find(record.ticket);
    const bool waited_for = lease->second.waited_for;
    leases_.erase(lease);
    record.ticket = OMRALIB_NULL_LOCK_TKT;
    return waited_for;
}

/* Operations ---------------------------------------------------------------------------------- */

Status Shard::create(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values) {
    ExpiredRecords expired(context_.expiry);
    fresh->stored_s = second_of(context_.clock.now());
    const Guard guard(lock_);
    reap(reap_on_the_way, expired);
    if (Record *record = find(fresh->key, hash)) {
        if (!is_expired(*record)) {
            return OMRALIB_ERR_OBJ_EXISTS;
        }
        expired.push(take(*record));
    }
    Charge charge(context_.budget, cost_of(fresh->length(), values.size()));
    if (!charge) {
        return OMRALIB_ERR_NO_SPACE;
    }
    insert(std::move(fresh), hash, values);
    charge.keep();
    return OMRALIB_RET_SUCCESS;
}

Status Shard::read(const Key &key, std::uint64_t hash, bool renewing, Content &content_out) {
    const Guard guard(lock_);
    Record *record = find_live(key, hash);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (renewing) {
        renew(*record);
    }
    content_out = record->content();
    return OMRALIB_RET_SUCCESS;
}

Status Shard::lock(const Key &key, std::uint64_t hash, bool renewing, int ticket, bool mark,
                   Content &content_out) {
    const Guard guard(lock_);
    Record *record = find_live(key, hash);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (is_locked(*record)) {
        leases_.find(record->ticket)->second.waited_for |= mark;
        return OMRALIB_ERR_OBJ_LOCKED;
    }
    /* Who waits for a lock whose lease is over waits for the next one. */
    Lease &lease = leases_[ticket];
    lease = {context_.clock.now() + context_.lock_lease, false};
    lease.waited_for = end_lock(*record);
    record->ticket = ticket;
    if (renewing) {
        renew(*record);
    }
    content_out = record->content();
    return OMRALIB_RET_SUCCESS;
}

Status Shard::update(const Key &key, std::uint64_t hash, int ticket, bool unlocking, bool renewing,
                     Bytes bytes) {
    RecordRef fresh = make_record(key, 0, bytes);
    RecordRef old;
    WakeUp wake_up(context_.waiters, key);
    const Guard guard(lock_);
    Record *record = find_live(key, hash);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (!holds(*record, ticket)) {
        return OMRALIB_ERR_LOCK_LOST;
    }
    Charge growth(context_.budget, above(fresh->length(), record->length()));
    if (!growth) {
        return OMRALIB_ERR_NO_SPACE;
    }
    fresh->timeout_m = record->timeout_m;
    fresh->expires_at = record->expires_at.load();
    fresh->stored_s = record->stored_s;
    fresh->ticket = ticket;
    if (renewing) {
        renew(*fresh.get());
    }
    give_place(take_place(*record), record->queued_at, *fresh.get());
    growth.keep();
    context_.budget.refund(above(record->length(), fresh->length()));
    ObjectIndex::move_entries(*record, *fresh.get());
    if (unlocking) {
        wake_up.arm_if(end_lock(*fresh.get()));
    }
    old = put_in_place_of(*section_of(key.app_id), *record, std::move(fresh));
    return OMRALIB_RET_SUCCESS;
}

/* A lease that is over is renewed too, as long as nobody has taken the lock since: the holder lives
 * after all. */
Status Shard::renew_lock(const Key &key, std::uint64_t hash, int ticket) {
    const Guard guard(lock_);
    const Record *record = find_live(key, hash);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (ticket == OMRALIB_NULL_LOCK_TKT || record->ticket != ticket) {
        return OMRALIB_ERR_LOCK_LOST;
    }
    leases_.find(ticket)->second.ends_at = context_.clock.now() + context_.lock_lease;
    return OMRALIB_RET_SUCCESS;
}

Status Shard::unlock(const Key &key, std::uint64_t hash, int ticket) {
    WakeUp wake_up(context_.waiters, key);
    const Guard guard(lock_);
    Record *record = find_live(key, hash);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (!holds(*record, ticket)) {
        return OMRALIB_ERR_LOCK_LOST;
    }
    wake_up.arm_if(end_lock(*record));
    return OMRALIB_RET_SUCCESS;
}

Status Shard::replace(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values) {
    RecordRef old;
    fresh->stored_s = second_of(context_.clock.now());
    const Guard guard(lock_);
    Record *record = find_live(fresh->key, hash);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (is_locked(*record)) {
        return OMRALIB_ERR_OBJ_LOCKED;
    }
    const std::uint64_t cost = cost_of(fresh->length(), values.size());
    const std::uint64_t old_cost = cost_of_record(*record);
    Charge growth(context_.budget, above(cost, old_cost));
    if (!growth) {
        return OMRALIB_ERR_NO_SPACE;
    }
    Section &section = *section_of(fresh->key.app_id);
    join(section, *fresh.get(), values);
    growth.keep();
    context_.budget.refund(above(old_cost, cost));
    end_lock(*record);
    section.index.detach(*record);
    take_place(*record);
    old = put_in_place_of(section, *record, std::move(fresh));
    return OMRALIB_RET_SUCCESS;
}

Status Shard::remove(const Key &key, std::uint64_t hash) {
    RecordRef removed;
    WakeUp wake_up(context_.waiters, key);
    ExpiredRecords expired(context_.expiry);
    const Guard guard(lock_);
    Record *record = find(key, hash);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (is_expired(*record)) {
        expired.push(take(*record));
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    wake_up.arm_if(end_lock(*record));
    removed = take(*record);
    return OMRALIB_RET_SUCCESS;
}

Status Shard::exists(const Key &key, std::uint64_t hash) {
    const Guard guard(lock_);
    return find_live(key, hash) != nullptr ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_OBJ_NOT_FOUND;
}

Status Shard::touch(const Key &key, std::uint64_t hash) {
    const Guard guard(lock_);
    Record *record = find_live(key, hash);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    renew(*record);
    return OMRALIB_RET_SUCCESS;
}

/* Sets of records ----------------------------------------------------------------------------- */

Millis Shard::sweep(std::size_t max_records) {
    ExpiredRecords expired(context_.expiry);
    const Guard guard(lock_);
    return reap(max_records, expired);
}

/* Reaps all that has expired, in batches, between which others get the lock. */
void Shard::reap_all() {
    Millis next_due = sweep(reap_batch);
    while (next_due != never && next_due <= context_.clock.now()) {
        next_due = sweep(reap_batch);
    }
}

/* Each record once, in the order in which they came; marks them while it lives. */
class Shard::Gathering {
public:
    Gathering() = default;
    Gathering(const Gathering &) = delete;
    Gathering &operator=(const Gathering &) = delete;
    ~Gathering() {
        for (Record *record : records_) {
            record->is_gathered = false;
        }
    }

    void add(Record &record) {
        if (!record.is_gathered) {
            records_.push_back(&record);
            record.is_gathered = true;
        }
    }

    const std::vector<Record *> &records() const { return records_; }

private:
    std::vector<Record *> records_;
};

void Shard::collect(std::uint32_t app_id, QueryPlan &plan, const SlotSet *slots,
                    std::vector<Key> &keys, std::vector<RecordRef> &untested) {
    if (num_records(app_id) == 0) {
        return;
    }
    reap_all();
    const Guard guard(lock_);
    Section *section = section_of(app_id);
    if (section == nullptr) {
        return;
    }
    const RecordTable &records = section->records;
    const auto is_wanted = [&](const Record &record) {
        return !is_expired(record) &&
               (slots == nullptr || slots->contains(slot_of(hash_of(record.key)))) &&
               in_sample(record.key, plan.selection().sample);
    };
    const bool is_looked_up = plan.bind(section->index, records.size());
    if (!is_looked_up && records.size() <= plan.num_testable()) {
        for (const RecordTable::Place place : records.places()) {
            const Record *record = place.record();
            if (record != nullptr && plan.test(*record) && is_wanted(*record)) {
                keys.push_back(record->key);
            }
        }
        return;
    }
    Gathering gathering;
    const auto gather = [&](Record &record) {
        if (is_wanted(record)) {
            gathering.add(record);
        }
    };
    if (is_looked_up) {
        plan.look_up(gather);
    } else {
        for (const RecordTable::Place place : records.places()) {
            if (Record *record = place.record()) {
                gather(*record);
            }
        }
    }
    test_or_put_off(plan, gathering, keys, untested);
}

void Shard::test_or_put_off(QueryPlan &plan, const Gathering &gathering, std::vector<Key> &keys,
                            std::vector<RecordRef> &untested) {
    if (gathering.records().size() <= plan.num_testable()) {
        for (const Record *record : gathering.records()) {
            if (plan.test(*record)) {
                keys.push_back(record->key);
            }
        }
        return;
    }
    untested.reserve(gathering.records().size());
    for (Record *record : gathering.records()) {
        untested.push_back(RecordRef::share(*record));
    }
}

void Shard::collect_some(std::uint32_t app_id, QueryPlan &plan, std::vector<Key> &keys,
                         std::vector<RecordRef> &untested) {
    const std::size_t num_left = untested.size() - std::min(untested.size(), plan.num_testable());
    {
        const Guard guard(lock_);
        if (Section *section = section_of(app_id)) {
            plan.bind_again(section->index);
        }
        for (std::size_t i = num_left; i < untested.size(); ++i) {
            /* An update may have put another one in its place. */
            const Record *record = untested[i]->is_stored
                                       ? untested[i].get()
                                       : find_live(untested[i]->key, hash_of(untested[i]->key));
            if (record != nullptr && !is_expired(*record) && plan.test(*record)) {
                keys.push_back(record->key);
            }
        }
    }
    untested.resize(num_left);
}

/* Goes by the first few records for what no index can tell. */
void Shard::survey(std::uint32_t app_id, QuerySurvey &survey) {
    constexpr std::size_t max_examples = 64;
    reap_all();
    const Guard guard(lock_);
    Section *section = section_of(app_id);
    if (section == nullptr) {
        return;
    }
    const RecordTable &records = section->records;
    std::vector<const Record *> examples;
    examples.reserve(max_examples);
    for (const RecordTable::Place place : records.places()) {
        if (examples.size() == max_examples) {
            break;
        }
        if (const Record *record = place.record()) {
            examples.push_back(record);
        }
    }
    survey.add(section->index, records.size(), examples);
}

void Shard::add_app_ids(std::set<std::uint32_t> &app_ids) {
    const Guard guard(lock_);
    for (const auto &[app_id, section] : sections_) {
        if (!section.records.empty()) {
            app_ids.insert(app_id);
        }
    }
}

std::size_t Shard::num_records(std::uint32_t app_id) {
    const Guard guard(lock_);
    const Section *section = section_of(app_id);
    return section != nullptr ? section->records.size() : 0;
}

Totals Shard::totals_of(std::uint32_t app_id) {
    reap_all();
    const Guard guard(lock_);
    const Section *section = section_of(app_id);
    return section != nullptr ? Totals{section->records.size(), section->num_bytes} : Totals{};
}

Totals Shard::totals() {
    reap_all();
    const Guard guard(lock_);
    Totals totals;
    for (const auto &[app_id, section] : sections_) {
        totals.num_objects += section.records.size();
        totals.num_bytes += section.num_bytes;
    }
    return totals;
}

} // namespace store
