/* Operations on objects: each reads the record, says what should become of it, and writes that. */
#include "rados/rados_objects.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <thread>
#include <utility>

#include "rados/rados_scan.h"

namespace store {

namespace {

/* How soon somebody who waits for a lock tries again. */
constexpr std::chrono::milliseconds lock_beat{5};

/* Unlike the tickets before it, and not guessed by who held a lock of an object that was there
 * under this key before. */
std::uint32_t next_ticket(const RecordLock &lock) {
    constexpr std::uint32_t max = std::numeric_limits<int>::max();
    const auto before =
        lock.ticket != 0 ? lock.ticket : static_cast<std::uint32_t>(Pool::fresh_id() % max);
    return before % max + 1;
}

} // namespace

RadosObjects::RadosObjects(Clock &clock, const Configuration &configuration, Pool pool)
    : clock_(clock), lock_lease_(configuration.lock_lease), pool_(std::move(pool)), wall_(clock),
      sweeper_(clock, pool_, wall_, marks_) {}

/* Making changes --------------------------------------------------------------------------------
 */

/* Asks make(record, change) for a change of the record as it is now, until one has been written
 * that was made from what there was; or returns what make() answers, if that is no success. A
 * record that is over is taken out first. */
template <typename Make>
Status RadosObjects::change(const Key &key, bool with_data, Make make) {
    const std::uint64_t write_id = Pool::fresh_id();
    for (bool is_first = true;; is_first = false) {
        StoredRecord record;
        int answer = load(pool_, key, with_data, record);
        if (answer == 0 && record.exists() && record.header.is_expired(wall_.now())) {
            answer = sweeper_.expire(record);
            if (answer == 0 || answer == -ECANCELED) {
                continue;
            }
        }
        if (answer != 0) {
            return status_of(answer);
        }
        if (!is_first && record.header.write_id == write_id) {
            return OMRALIB_RET_SUCCESS; /* the write was sent twice, and refused the second time */
        }
        RecordChange change(pool_, record, write_id);
        const Status status = make(record, change);
        if (status != OMRALIB_RET_SUCCESS) {
            return status;
        }
        answer = change.commit();
        marks_.note_write(key);
        if (answer == -ECANCELED) {
            continue;
        }
        if (status_of(answer) == OMRALIB_ERR_UNKNOWN && load(pool_, key, false, record) == 0 &&
            change.is_made_in(record)) {
            return OMRALIB_RET_SUCCESS;
        }
        return status_of(answer);
    }
}

/* A use, now. */
void RadosObjects::renew(RecordHeader &header) const {
    if (header.timeout_m != 0) {
        header.expires_at = wall_.now() + header.timeout_m * millis_per_minute;
    }
}

RecordHeader RadosObjects::header_of(const ObjectSpec &spec, std::uint64_t data_id) const {
    RecordHeader header;
    header.data_id = data_id;
    header.stored_at = wall_.now();
    header.timeout_m = spec.timeout_m;
    header.length = static_cast<std::uint32_t>(spec.bytes.size());
    header.values.assign(spec.values.begin(), spec.values.end());
    renew(header);
    header.queued_at = header.expires_at;
    return header;
}

/* Before the first object of an app id is stored. */
Status RadosObjects::note_app_id(std::uint32_t app_id) {
    {
        const Guard guard(lock_);
        if (noted_.contains(app_id)) {
            return OMRALIB_RET_SUCCESS;
        }
    }
    const Status status = status_of(pool_.add_app_id(app_id));
    if (status == OMRALIB_RET_SUCCESS) {
        const Guard guard(lock_);
        noted_.insert(app_id);
    }
    return status;
}

/* One object ------------------------------------------------------------------------------------
 */

Status RadosObjects::create(const Key &key, const ObjectSpec &spec) {
    Status status = note_app_id(key.app_id);
    if (status != OMRALIB_RET_SUCCESS) {
        return status;
    }
    const RecordHeader header = header_of(spec, Pool::fresh_id());
    status = change(key, false, [&](const StoredRecord &record, RecordChange &change) -> Status {
        if (record.exists()) {
            return OMRALIB_ERR_OBJ_EXISTS;
        }
        change.expect_header();
        change.set_header(header);
        change.set_data(spec.bytes);
        return OMRALIB_RET_SUCCESS;
    });
    if (status == OMRALIB_RET_SUCCESS && spec.timeout_m != 0) {
        sweeper_.on_queued(header.queued_at);
    }
    return status;
}

Status RadosObjects::read(const Key &key, bool renew, Content &content_out) {
    for (;;) {
        StoredRecord record;
        int answer = load(pool_, key, true, record);
        if (answer != 0) {
            return status_of(answer);
        }
        if (!record.exists() || record.header.is_expired(wall_.now())) {
            return OMRALIB_ERR_OBJ_NOT_FOUND;
        }
        Content content;
        answer = load_content(pool_, record, content);
        if (answer == -ENOENT) {
            continue; /* replaced meanwhile */
        }
        Status status = status_of(answer);
        if (status == OMRALIB_RET_SUCCESS && renew && record.header.timeout_m != 0) {
            status = touch(key);
        }
        if (status == OMRALIB_RET_SUCCESS) {
            content_out = std::move(content);
        }
        return status;
    }
}

Status RadosObjects::touch(const Key &key) {
    return change(key, false, [&](const StoredRecord &record, RecordChange &change) -> Status {
        if (!record.exists()) {
            return OMRALIB_ERR_OBJ_NOT_FOUND;
        }
        RecordHeader renewed = record.header;
        renew(renewed);
        if (renewed.expires_at > record.header.expires_at) {
            change.expect_header();
            change.set_header(renewed);
        }
        return OMRALIB_RET_SUCCESS;
    });
}

Status RadosObjects::exists(const Key &key) {
    StoredRecord record;
    const int answer = load(pool_, key, false, record);
    if (answer != 0) {
        return status_of(answer);
    }
    return record.exists() && !record.header.is_expired(wall_.now()) ? OMRALIB_RET_SUCCESS
                                                                     : OMRALIB_ERR_OBJ_NOT_FOUND;
}

Status RadosObjects::replace(const Key &key, const ObjectSpec &spec) {
    const RecordHeader header = header_of(spec, Pool::fresh_id());
    const Status status =
        change(key, false, [&](const StoredRecord &record, RecordChange &change) -> Status {
            if (!record.exists()) {
                return OMRALIB_ERR_OBJ_NOT_FOUND;
            }
            if (record.is_locked(wall_.now())) {
                return OMRALIB_ERR_OBJ_LOCKED;
            }
            change.expect_header();
            change.expect_lock();
            change.expect_lease();
            change.set_header(header);
            change.set_data(spec.bytes);
            change.free_lock();
            return OMRALIB_RET_SUCCESS;
        });
    if (status == OMRALIB_RET_SUCCESS && spec.timeout_m != 0) {
        sweeper_.on_queued(header.queued_at);
    }
    return status;
}

Status RadosObjects::remove(const Key &key) {
    return change(key, false, [&](const StoredRecord &record, RecordChange &change) -> Status {
        if (!record.exists()) {
            return OMRALIB_ERR_OBJ_NOT_FOUND;
        }
        change.expect_header();
        change.remove_record();
        return OMRALIB_RET_SUCCESS;
    });
}

Status RadosObjects::copy(const Key &from, const Key &to, std::uint32_t timeout_m) {
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

/* Locks -----------------------------------------------------------------------------------------
 */

Status RadosObjects::read_and_lock(const Key &key, bool renewing, Millis patience, int &ticket_out,
                                   Content &content_out) {
    const auto attempt = [&] {
        std::uint32_t ticket = 0;
        Content content;
        const Status status =
            change(key, true, [&](const StoredRecord &record, RecordChange &change) -> Status {
                if (!record.exists()) {
                    return OMRALIB_ERR_OBJ_NOT_FOUND;
                }
                if (record.is_locked(wall_.now())) {
                    return OMRALIB_ERR_OBJ_LOCKED;
                }
                const int answer = load_content(pool_, record, content);
                if (answer != 0 && answer != -ENOENT) {
                    return status_of(answer);
                }
                ticket = next_ticket(record.lock);
                change.expect_header(); /* without which it is not this content */
                change.expect_lock();
                change.expect_lease();
                change.hold_lock(ticket, wall_.now() + lock_lease_);
                RecordHeader renewed = record.header;
                renew(renewed);
                if (renewing && renewed.expires_at > record.header.expires_at) {
                    change.set_header(renewed);
                }
                return OMRALIB_RET_SUCCESS;
            });
        if (status == OMRALIB_RET_SUCCESS) {
            ticket_out = static_cast<int>(ticket);
            content_out = std::move(content);
        }
        return status;
    };
    const Millis deadline = clock_.now() + patience;
    Status status = attempt();
    if (status == OMRALIB_ERR_OBJ_LOCKED && patience > 0) {
        ++num_lock_waits_;
    }
    while (status == OMRALIB_ERR_OBJ_LOCKED && clock_.now() < deadline) {
        std::this_thread::sleep_for(lock_beat);
        status = attempt();
    }
    return status;
}

/* A lease that is over is renewed too, as long as nobody has taken the lock since: the holder lives
 * after all. */
Status RadosObjects::renew_lock(const Key &key, int ticket) {
    return change(key, false, [&](const StoredRecord &record, RecordChange &change) -> Status {
        if (!record.exists()) {
            return OMRALIB_ERR_OBJ_NOT_FOUND;
        }
        if (!record.lock.is_held || record.lock.ticket != static_cast<std::uint32_t>(ticket)) {
            return OMRALIB_ERR_LOCK_LOST;
        }
        change.expect_lock();
        change.set_lease(wall_.now() + lock_lease_);
        return OMRALIB_RET_SUCCESS;
    });
}

Status RadosObjects::update(const Key &key, int ticket, bool unlock, bool renewing, Bytes bytes) {
    const std::uint64_t data_id = Pool::fresh_id();
    return change(key, false, [&](const StoredRecord &record, RecordChange &change) -> Status {
        if (!record.exists()) {
            return OMRALIB_ERR_OBJ_NOT_FOUND;
        }
        if (!record.holds(ticket, wall_.now())) {
            return OMRALIB_ERR_LOCK_LOST;
        }
        RecordHeader header = record.header;
        header.data_id = data_id;
        header.length = static_cast<std::uint32_t>(bytes.size());
        if (renewing) {
            renew(header);
        }
        change.expect_header();
        change.expect_lock();
        change.set_header(header);
        change.set_data(bytes);
        if (unlock) {
            change.free_lock();
        }
        return OMRALIB_RET_SUCCESS;
    });
}

Status RadosObjects::unlock(const Key &key, int ticket) {
    return change(key, false, [&](const StoredRecord &record, RecordChange &change) -> Status {
        if (!record.exists()) {
            return OMRALIB_ERR_OBJ_NOT_FOUND;
        }
        if (!record.holds(ticket, wall_.now())) {
            return OMRALIB_ERR_LOCK_LOST;
        }
        change.expect_lock();
        change.free_lock();
        return OMRALIB_RET_SUCCESS;
    });
}

/* Sets of objects -------------------------------------------------------------------------------
 */

/* Those that a selection of this app id asks for. */
Status RadosObjects::list_app_ids(std::uint32_t app_id, std::vector<std::uint32_t> &app_ids_out) {
    if (app_id != OMRALIB_ALL_APP_IDS) {
        app_ids_out = {app_id};
        return OMRALIB_RET_SUCCESS;
    }
    const Status status = status_of(pool_.app_ids(app_ids_out));
    std::erase_if(app_ids_out, [](std::uint32_t each) { return each > last_ordinary_app_id; });
    return status;
}

Status RadosObjects::scan(const Selection &selection, const Part *part,
                          std::unique_ptr<Scan> &scan_out) {
    std::vector<std::uint32_t> app_ids;
    const Status status = list_app_ids(selection.app_id, app_ids);
    if (status == OMRALIB_RET_SUCCESS) {
        scan_out = std::make_unique<RadosScan>(pool_, wall_, marks_, app_ids, selection, part);
    }
    return status;
}

Status RadosObjects::explain(const Selection &selection, Explanation &explanation_out) {
    std::vector<std::uint32_t> app_ids;
    const Status status = list_app_ids(selection.app_id, app_ids);
    return status == OMRALIB_RET_SUCCESS
               ? explain_search(pool_, wall_, marks_, app_ids, selection, explanation_out)
               : status;
}

/* The numbers that the buckets keep of what is in them. */
Status RadosObjects::add_totals(std::span<const std::uint32_t> app_ids, Totals &totals_out) {
    const Status status = sweeper_.catch_up();
    if (status != OMRALIB_RET_SUCCESS) {
        return status;
    }
    Totals sum;
    for (const std::uint32_t app_id : app_ids) {
        std::vector<Entries> entries(pool_.num_buckets());
        Reads reads(pool_);
        for (std::uint32_t number = 0; number < entries.size(); ++number) {
            reads.get(Bucket{app_id, number}.name(), {"n", "s"}, entries[number]);
        }
        if (const int answer = reads.wait(); answer != 0) {
            return status_of(answer);
        }
        for (const Entries &its : entries) {
            sum.num_objects += std::strtoull(text_of(its, "n").c_str(), nullptr, 10);
            sum.num_bytes += std::strtoull(text_of(its, "s").c_str(), nullptr, 10);
        }
    }
    totals_out = sum;
    return OMRALIB_RET_SUCCESS;
}

Status RadosObjects::totals_of(std::uint32_t app_id, Totals &totals_out) {
    std::vector<std::uint32_t> app_ids;
    const Status status = list_app_ids(app_id, app_ids);
    return status == OMRALIB_RET_SUCCESS ? add_totals(app_ids, totals_out) : status;
}

Status RadosObjects::totals(Totals &totals_out) {
    std::vector<std::uint32_t> app_ids;
    const Status status = status_of(pool_.app_ids(app_ids));
    return status == OMRALIB_RET_SUCCESS ? add_totals(app_ids, totals_out) : status;
}

Status RadosObjects::num_records(std::uint32_t app_id, std::uint64_t &num_out) {
    Totals totals;
    const Status status = totals_of(app_id, totals);
    num_out = totals.num_objects;
    return status;
}

Status RadosObjects::activity(Activity &activity_out) {
    activity_out = {sweeper_.num_expired(), num_lock_waits_};
    return OMRALIB_RET_SUCCESS;
}

} // namespace store
