/* What a record is in its bucket: entries of one RADOS object's sorted map, whose names begin with
 * a letter.
 *
 *   h KEY                what is known of the object; there is a record where there is this entry
 *   d KEY                its bytes, unless they are in RADOS objects of their own
 *   l KEY                its lock: the ticket, and whether it is held; none until the first lock
 *   e KEY                when the lease of the lock ends, so that renewing it disturbs no update
 *   t DEADLINE KEY       its place in the queue of the time-outs
 *   x INDEX VALUE KEY    one for each index value
 *   n, s                 of the bucket: the number of objects, and of their bytes
 *
 * Numbers in names are big-endian, so that the map's order is that of the keys, the moments and the
 * values (as numbers). Times are milliseconds since 1970, the same on all machines. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/conditions.h"
#include "engine/keys.h"
#include "engine/types.h"

namespace store {

struct RecordHeader {
    std::uint64_t write_id = 0; /* of the write that made this header: no other has it */
    std::uint64_t data_id = 0;  /* of the write that made the bytes */
    Millis expires_at = never;
    Millis queued_at = never; /* its place in the queue; at most expires_at */
    Millis stored_at = 0;
    std::uint32_t timeout_m = 0;
    std::uint32_t length = 0;
    std::vector<OMRA_OBJ_INDEX> values;

    bool is_expired(Millis now) const { return timeout_m != 0 && expires_at <= now; }
    bool is_inline() const { return length <= max_inline; }

    static constexpr std::uint32_t max_inline = 16384;
};

struct RecordLock {
    std::uint32_t ticket = 0;
    bool is_held = false;
};

/* Values of entries. What cannot be decoded was not written by this version. */
std::string encode(const RecordHeader &header);
std::string encode(const RecordLock &lock);
std::string encode_moment(Millis moment);
bool decode(std::string_view bytes, RecordHeader &header_out);
bool decode(std::string_view bytes, RecordLock &lock_out);
Millis decode_moment(std::string_view bytes);

/* Names of entries. */
inline constexpr std::size_t key_name_length = 36;
std::string key_name(const Key &key); /* without the app id, which the bucket's name has */
Key key_of_name(std::string_view name, std::uint32_t app_id);
std::string entry_name(char kind, std::string_view key_name);
inline std::string entry_name(char kind, const Key &key) {
    return entry_name(kind, key_name(key));
}
std::string queue_name(Millis deadline); /* what all entries of this deadline begin with */
std::string queue_name(Millis deadline, const Key &key);
std::string index_name(std::uint16_t index); /* and of this index, and of this value */
std::string index_name(std::uint16_t index, const IndexValue &value);
std::string index_name(std::uint16_t index, const IndexValue &value, const Key &key);

/* What the name of an entry of the queue or of an index says; the key are its last bytes. */
Millis deadline_of_name(std::string_view name);
IndexValue value_of_name(std::string_view name);
inline std::string_view key_part(std::string_view name) {
    return name.substr(name.size() - key_name_length);
}

} // namespace store
