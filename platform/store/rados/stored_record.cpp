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

/* As the class numops expects its arguments: each with its length in front. */
void add_argument(BufferList &arguments, std::string_view text) {
    const auto length = static_cast<std::uint32_t>(text.size());
    arguments.append(reinterpret_cast<const char *>(&length), sizeof length);
    arguments.append(text.data(), length);
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
    expected_[name_of(kind)] = {buffer_of(bytes), LIBRADOS_CMPXATTR_OP_EQ};
}

void RecordChange::set(const std::string &name, std::string_view bytes) {
    removed_.erase(name);
    set_[name] = buffer_of(bytes);
}

/* Takes out the entries that hang on a header; those of the next one may be the same. */
void RecordChange::take_place_of(const RecordHeader &old) {
    for (const OMRA_OBJ_INDEX &value : old.values) {
        removed_.insert(index_name(value.index, value.value, from_.key));
    }
    if (old.timeout_m != 0) {
        removed_.insert(queue_name(old.queued_at, from_.key));
    }
    --more_objects_;
    more_bytes_ -= old.length;
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
    ++more_objects_;
    more_bytes_ += fresh.length;
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
        removed_.insert(name_of('e'));
    }
}

void RecordChange::remove_record() {
    take_place_of(from_.header);
    for (const char kind : {'h', 'd', 'l', 'e'}) {
        removed_.insert(name_of(kind));
    }
    removes_ = true;
}

/* The class adds to numbers that are not there yet as to 0. */
void RecordChange::add_to_totals(librados::ObjectWriteOperation &operation) const {
    for (const auto &[name, more] : {std::pair("n", more_objects_), {"s", more_bytes_}}) {
        if (more != 0) {
            BufferList arguments;
            add_argument(arguments, name);
            add_argument(arguments, std::to_string(more));
            operation.exec("numops", "add", arguments);
        }
    }
}

int RecordChange::write_long_data() {
    return data_ && !fresh_.is_inline()
               ? pool_.write_pieces(name_of_long(bucket_, from_.key, fresh_.data_id), *data_)
               : 0;
}

int RecordChange::commit() {
    if (set_.empty() && removed_.empty()) {
        return 0;
    }
    if (data_ && fresh_.is_inline()) {
        set_[name_of('d')] = buffer_of(*data_);
    } else if (data_) {
        removed_.insert(name_of('d'));
    }
    int answer = write_long_data();
    if (answer != 0) {
        return answer;
    }
    librados::ObjectWriteOperation operation;
    operation.create(false); /* before what compares, which refuses an object that is not there */
    if (!expected_.empty()) {
        operation.omap_cmp(expected_, nullptr);
    }
    if (!removed_.empty()) {
        operation.omap_rm_keys(removed_);
    }
    if (!set_.empty()) {
        operation.omap_set(set_);
    }
    add_to_totals(operation);
    answer = pool_.write(bucket_.name(), operation);
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
        const auto found = set_.find(name_of(kind));
        return found == set_.end() || found->second.to_str() == bytes;
    };
    return is_there('l', record.lock_bytes) && is_there('e', record.lease_bytes);
}

} // namespace store
