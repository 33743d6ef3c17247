/* The bytes of entries and of their names. */
#include "rados/record.h"

#include <bit>
#include <cstring>

namespace store {

namespace {

template <typename Number>
void add_big_endian(std::string &text, Number number) {
    for (std::size_t i = sizeof number; i-- > 0;) {
        text.push_back(static_cast<char>(number >> (8 * i) & 0xFF));
    }
}

template <typename Number>
Number take_big_endian(std::string_view &text) {
    Number number = 0;
    for (std::size_t i = 0; i < sizeof number; ++i) {
        number = static_cast<Number>(number << 8 | static_cast<unsigned char>(text[i]));
    }
    text.remove_prefix(sizeof number);
    return number;
}

/* A header as it is stored; index values follow it, in little-endian as all records. */
struct StoredHeader {
    std::uint32_t version;
    std::uint32_t num_values;
    std::uint64_t write_id;
    std::uint64_t data_id;
    Millis expires_at;
    Millis queued_at;
    Millis stored_at;
    std::uint32_t timeout_m;
    std::uint32_t length;
};
static_assert(sizeof(StoredHeader) == 56 && std::endian::native == std::endian::little);

struct StoredLock {
    std::uint32_t ticket;
    std::uint32_t is_held;
};

constexpr std::uint32_t stored_version = 1;

template <typename Record>
std::string bytes_of_record(const Record &record) {
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

} // namespace

/* Values --------------------------------------------------------------------------------------- */

std::string encode(const RecordHeader &header) {
    const StoredHeader stored{stored_version,    static_cast<std::uint32_t>(header.values.size()),
                              header.write_id,   header.data_id,
                              header.expires_at, header.queued_at,
                              header.stored_at,  header.timeout_m,
                              header.length};
    std::string bytes = bytes_of_record(stored);
    bytes.append(reinterpret_cast<const char *>(header.values.data()),
                 header.values.size() * sizeof(OMRA_OBJ_INDEX));
    return bytes;
}

bool decode(std::string_view bytes, RecordHeader &header_out) {
    StoredHeader stored;
    if (bytes.size() < sizeof stored) {
        return false;
    }
    std::memcpy(&stored, bytes.data(), sizeof stored);
    const std::size_t values_length = stored.num_values * sizeof(OMRA_OBJ_INDEX);
    if (stored.version != stored_version || bytes.size() != sizeof stored + values_length) {
        return false;
    }
    header_out = {stored.write_id,  stored.data_id,   stored.expires_at, stored.queued_at,
                  stored.stored_at, stored.timeout_m, stored.length,     {}};
    header_out.values.resize(stored.num_values);
    std::memcpy(header_out.values.data(), bytes.data() + sizeof stored, values_length);
    return true;
}

std::string encode(const RecordLock &lock) {
    return bytes_of_record(StoredLock{lock.ticket, lock.is_held ? 1u : 0u});
}

bool decode(std::string_view bytes, RecordLock &lock_out) {
    StoredLock stored;
    if (bytes.size() != sizeof stored) {
        return false;
    }
    std::memcpy(&stored, bytes.data(), sizeof stored);
    lock_out = {stored.ticket, stored.is_held != 0};
    return true;
}

std::string encode_moment(Millis moment) {
    std::string bytes;
    add_big_endian(bytes, static_cast<std::uint64_t>(moment));
    return bytes;
}

Millis decode_moment(std::string_view bytes) {
    return bytes.size() == sizeof(Millis)
               ? static_cast<Millis>(take_big_endian<std::uint64_t>(bytes))
               : 0;
}

/* Names ---------------------------------------------------------------------------------------- */

std::string key_name(const Key &key) {
    std::string name;
    name.reserve(key_name_length);
    add_big_endian(name, key.flags);
    add_big_endian(name, key.type_index);
    add_big_endian(name, key.reserved);
    for (const OMRA_OBJID &id : {key.ext_obj_id, key.obj_id}) {
        add_big_endian(name, id.u64_comp[0]);
        add_big_endian(name, id.u64_comp[1]);
    }
    return name;
}

Key key_of_name(std::string_view name, std::uint32_t app_id) {
    Key key{};
    key.app_id = app_id;
    key.flags = take_big_endian<UCHAR>(name);
    key.type_index = take_big_endian<UCHAR>(name);
    key.reserved = take_big_endian<USHORT>(name);
    for (OMRA_OBJID *id : {&key.ext_obj_id, &key.obj_id}) {
        id->u64_comp[0] = take_big_endian<ULONGLONG>(name);
        id->u64_comp[1] = take_big_endian<ULONGLONG>(name);
    }
    return key;
}

std::string entry_name(char kind, std::string_view key_name) {
    std::string name(1, kind);
    return name.append(key_name);
}

std::string queue_name(Millis deadline) {
    return entry_name('t', encode_moment(deadline));
}

std::string queue_name(Millis deadline, const Key &key) {
    return queue_name(deadline) + key_name(key);
}

std::string index_name(std::uint16_t index) {
    std::string name = "x";
    add_big_endian(name, index);
    return name;
}

std::string index_name(std::uint16_t index, const IndexValue &value) {
    std::string name = index_name(index);
    for (std::size_t i = std::size(value.u64_comp); i-- > 0;) {
        add_big_endian(name, value.u64_comp[i]);
    }
    return name;
}

std::string index_name(std::uint16_t index, const IndexValue &value, const Key &key) {
    return index_name(index, value) + key_name(key);
}

Millis deadline_of_name(std::string_view name) {
    return decode_moment(name.substr(1, sizeof(Millis)));
}

IndexValue value_of_name(std::string_view name) {
    name.remove_prefix(1 + sizeof(std::uint16_t));
    IndexValue value{};
    for (std::size_t i = std::size(value.u64_comp); i-- > 0;) {
        value.u64_comp[i] = take_big_endian<ULONGLONG>(name);
    }
    return value;
}

} // namespace store
