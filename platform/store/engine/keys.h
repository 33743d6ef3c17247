/* Object keys: which key names which object, and in which order objects are listed.
 *
 * All 40 bytes of a key count, except that a reader may mark the app id of an ordinary key with
 * OMRA_APPID_NO_RENEW. The mark is taken off at the library's door; behind it there are only plain
 * keys. */
#pragma once

#include <compare>
#include <cstdint>

#include "engine/contracts.h"

namespace store {

using Key = OMRA_OBJKEY;

/* The ordinary app ids are 0 to this one. */
inline constexpr std::uint32_t last_ordinary_app_id = 0x0FFFFFFF;

/* The last app id that can carry the mark: the next one, marked, would be 0x7FFFFFFF. */
inline constexpr std::uint32_t last_markable_app_id = 0x0FFFFFFE;

/* Where the library keeps what belongs to invocations. */
inline constexpr std::uint32_t reserved_app_id = 0x30000000;

/* Kinds of temporary object, told apart by the flags of their keys. */
enum class TempKind : unsigned char { results = 0x10, exceptions = 0x11 };

inline bool is_results_key(const Key &key) {
    return key.app_id == reserved_app_id && key.flags == static_cast<unsigned>(TempKind::results);
}

/* A key as a caller gave it, taken apart. */
struct NamedObject {
    Key key;    /* plain */
    bool renew; /* whether a use of the object renews its time-out */
};

inline NamedObject without_mark(const Key &given) {
    const std::uint32_t app_id = given.app_id & ~OMRA_APPID_NO_RENEW;
    const bool marked =
        (given.app_id & 0xF0000000u) == OMRA_APPID_NO_RENEW && app_id <= last_markable_app_id;
    NamedObject named{given, !marked};
    if (marked) {
        named.key.app_id = app_id;
    }
    return named;
}

inline bool is_null(const Key &key) {
    return OMRA_OBJKEY_IS_NULL(key);
}

/* One of those that belong to a temporary object's key; 0 is that itself. */
inline Key numbered(Key key, std::uint64_t number) {
    key.obj_id.u64_comp[1] = number;
    return key;
}

/* Key order: by the fields as they stand in the record, ids by their 64-bit components, the first
 * component first. */
inline std::strong_ordering order_of(const Key &a, const Key &b) {
    if (a.app_id != b.app_id) {
        return a.app_id <=> b.app_id;
    }
    if (a.flags != b.flags) {
        return a.flags <=> b.flags;
    }
    if (a.type_index != b.type_index) {
        return a.type_index <=> b.type_index;
    }
    if (a.reserved != b.reserved) {
        return a.reserved <=> b.reserved;
    }
    const std::uint64_t ids_a[] = {a.ext_obj_id.u64_comp[0], a.ext_obj_id.u64_comp[1],
                                   a.obj_id.u64_comp[0], a.obj_id.u64_comp[1]};
    const std::uint64_t ids_b[] = {b.ext_obj_id.u64_comp[0], b.ext_obj_id.u64_comp[1],
                                   b.obj_id.u64_comp[0], b.obj_id.u64_comp[1]};
    for (int i = 0; i < 4; ++i) {
        if (ids_a[i] != ids_b[i]) {
            return ids_a[i] <=> ids_b[i];
        }
    }
    return std::strong_ordering::equal;
}

struct KeyLess {
    bool operator()(const Key &a, const Key &b) const { return order_of(a, b) < 0; }
};

} // namespace store
