/* A record as it was read at one moment, and the write that makes another one of it. */
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "engine/content.h"
#include "rados/pool.h"
#include "rados/record.h"

namespace store {

struct StoredRecord {
    Key key{};
    RecordHeader header;
    RecordLock lock;
    Millis lease_ends_at = 0;

    /* As they stand in the bucket; empty where there is none. */
    std::string header_bytes;
    std::string lock_bytes;
    std::string lease_bytes;
    std::string data; /* if it was asked for and is in the bucket */

    bool exists() const { return !header_bytes.empty(); }
    bool is_locked(Millis now) const { return lock.is_held && lease_ends_at > now; }
    bool holds(int ticket, Millis now) const {
        return is_locked(now) && lock.ticket == static_cast<std::uint32_t>(ticket);
    }
};

/* Reads the record of a key; one that is not there has no header. Answers as Pool does. */
int load(Pool &pool, const Key &key, bool with_data, StoredRecord &record_out);

/* The bytes of a record that was loaded with its data. -ENOENT when it has been changed since. */
int load_content(Pool &pool, const StoredRecord &record, Content &content_out);

/* One write, made from a record that was loaded. It changes what is set here and nothing else, and
 * is refused with -ECANCELED unless everything is still so that was read and is expected. */
class RecordChange {
public:
    /* `from` outlives the change; it may be of a key that has no record. */
    RecordChange(Pool &pool, const StoredRecord &from, std::uint64_t write_id);

    void expect_header() { expect('h', from_.header_bytes); }
    void expect_lock() { expect('l', from_.lock_bytes); }
    void expect_lease() { expect('e', from_.lease_bytes); }

    /* With all that hangs on the header: index entries, place in the queue, totals. */
    void set_header(RecordHeader fresh);

    /* `bytes` stay until commit() has returned; the header has their length. */
    void set_data(Bytes bytes) { data_ = bytes; }

    void hold_lock(std::uint32_t ticket, Millis lease_ends_at);
    void set_lease(Millis ends_at);
    void free_lock();
    void remove_record();

    /* 0 without asking when nothing has been set. */
    int commit();

    /* Whether a record that was loaded afterwards shows that the change was made. */
    bool is_made_in(const StoredRecord &record) const;

private:
    std::string name_of(char kind) const { return entry_name(kind, key_name_); }
    void expect(char kind, const std::string &bytes);
    void set(const std::string &name, std::string_view bytes);
    void take_place_of(const RecordHeader &old);
    int write_long_data();

    Pool &pool_;
    const StoredRecord &from_;
    const std::uint64_t write_id_;
    const Bucket bucket_;
    const std::string key_name_;

    Write write_;
    RecordHeader fresh_;
    bool has_header_ = false;
    bool removes_ = false;
    std::optional<Bytes> data_;
};

} // namespace store
