/* Reading records, and changing them in one write. */
#include "rados/stored_record.h"

#include <cerrno>
#include <cstdio>

namespace store {

namespace {

std::string hexadecimal(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

/* The RADOS objects of bytes that are too long for the bucket. */
std::string name_of_long(const Bucket &bucket, const Key &key, std::uint64_t data_id) {
    std::string name = bucket.name();
    name.front() = 'd';
    return name.append(".")
        .append(hexadecimal(key_name(key)))
        .append(".")
        .append(std::to_string(data_id));
}

} // namespace

/* Reading ---------------------------------------------------------------------------------------
 */

int load(Pool &pool, const Key &key, bool with_data, StoredRecord &record_out) {
    const std::string name = key_name(key);
    std::set<std::string> wanted = {entry_name('h', name), entry_name('l', name),
                                    entry_name('e', name)};
    if (with_data) {
        wanted.insert(entry_name('d', name));
    }
    Entries entries;
    const int answer = pool.get(pool.bucket_of(key).name(), wanted, entries);
    if (answer != 0) {
        return answer;
    }
    StoredRecord record;
    record.key = key;
    record.header_bytes = text_of(entries, entry_name('h', name));
    record.lock_bytes = text_of(entries, entry_name('l', name));
    record.lease_bytes = text_of(entries, entry_name('e', name));
    record.data = text_of(entries, entry_name('d', name));
    if (record.exists() && !decode(record.header_bytes, record.header)) {
        return -EBADMSG;
    }
    decode(record.lock_bytes, record.lock);
    record.lease_ends_at = decode_moment(record.lease_bytes);
    record_out = std::move(record);
    return 0;
}

int load_content(Pool &pool, const StoredRecord &record, Content &content_out) {
    if (record.header.is_inline()) {
        content_out = Content::copy_of(std::as_bytes(std::span(record.data)));
        return 0;
    }
    auto bytes = std::make_unique<std::byte[]>(record.header.length);
    const std::span<std::byte> all(bytes.get(), record.header.length);
    const int answer = pool.read_pieces(
        name_of_long(pool.bucket_of(record.key), record.key, record.header.data_id), all);
    if (answer == 0) {
        content_out = Content(all, bytes.release(),
                              [](void *owner) { delete[] static_cast<std::byte *>(owner); });
    }
    return answer;
}

/* Changing --------------------------------------------------------------------------------------
 */

RecordChange::RecordChange(Pool &pool, const StoredRecord &from, std::uint64_t write_id)
    : pool_(pool), from_(from), write_id_(write_id), bucket_(pool.bucket_of(from.key)),
      key_name_(key_name(from.key)) {}

void RecordChange::expect(char kind, const std::string &bytes) {
    write_.expected[name_of(kind)] = bytes;
}

void RecordChange::set(const std::string &name, std::string_view bytes) {
    write_.removed.erase(name);
    write_.set[name] = bytes;
}

/* Takes out the entries that hang on a header; those of the next one may be the same. */
void RecordChange::take_place_of(const RecordHeader &old) {
    for (const OMRA_OBJ_INDEX &value : old.values) {
        write_.removed.insert(index_name(value.index, value.value, from_.key));
    }
    if (old.timeout_m != 0) {
        write_.removed.insert(queue_name(old.queued_at, from_.key));
    }
    --write_.added["n"];
    write_.added["s"] -= old.length;
}

void RecordChange::set_header(RecordHeader fresh) {
    if (from_.exists()) {
        take_place_of(from_.header);
    }
    fresh.write_id = write_id_;
    for (const OMRA_OBJ_INDEX &value : fresh.values) {
        set(index_name(value.index, value.value, from_.key), {});
    }
    if (fresh.timeout_m != 0) {
        set(queue_name(fresh.queued_at, from_.key), {});
    }
    ++write_.added["n"];
    write_.added["s"] += fresh.length;
    set(name_of('h'), encode(fresh));
    fresh_ = std::move(fresh);
    has_header_ = true;
}

void RecordChange::hold_lock(std::uint32_t ticket, Millis lease_ends_at) {
    set(name_of('l'), encode(RecordLock{ticket, true}));
    set_lease(lease_ends_at);
}

void RecordChange::set_lease(Millis ends_at) {
    set(name_of('e'), encode_moment(ends_at));
}

/* The ticket stays, so that the next lock has another one. */
void RecordChange::free_lock() {
    if (!from_.lock_bytes.empty()) {
        set(name_of('l'), encode(RecordLock{from_.lock.ticket, false}));
        write_.removed.insert(name_of('e'));
    }
}

void RecordChange::remove_record() {
    take_place_of(from_.header);
    for (const char kind : {'h', 'd', 'l', 'e'}) {
        write_.removed.insert(name_of(kind));
    }
    removes_ = true;
}

int RecordChange::write_long_data() {
    return data_ && !fresh_.is_inline()
               ? pool_.write_pieces(name_of_long(bucket_, from_.key, fresh_.data_id), *data_)
               : 0;
}

int RecordChange::commit() {
    if (write_.set.empty() && write_.removed.empty()) {
        return 0;
    }
    std::erase_if(write_.added, [](const auto &added) { return added.second == 0; });
    if (data_ && fresh_.is_inline()) {
        write_.set[name_of('d')].assign(reinterpret_cast<const char *>(data_->data()),
                                        data_->size());
    } else if (data_) {
        write_.removed.insert(name_of('d'));
    }
    int answer = write_long_data();
    if (answer != 0) {
        return answer;
    }
    answer = pool_.write(bucket_.name(), write_);
    if (answer == -ECANCELED && data_ && !fresh_.is_inline()) {
        pool_.remove_pieces(name_of_long(bucket_, from_.key, fresh_.data_id), fresh_.length);
    }
    if (answer == 0 && (data_ || removes_) && from_.exists() && !from_.header.is_inline()) {
        pool_.remove_pieces(name_of_long(bucket_, from_.key, from_.header.data_id),
                            from_.header.length);
    }
    return answer;
}

bool RecordChange::is_made_in(const StoredRecord &record) const {
    if (removes_) {
        return !record.exists();
    }
    if (has_header_) {
        return record.header.write_id == write_id_;
    }
    const auto is_there = [this](char kind, const std::string &bytes) {
        const auto found = write_.set.find(name_of(kind));
        return found == write_.set.end() || found->second == bytes;
    };
    return is_there('l', record.lock_bytes) && is_there('e', record.lease_bytes);
}

} // namespace store
