// Tables as results: rows of a key and a value, sorted by key, each key once.
//
// Two tables merge in one pass over both. As long as the function that joins two values is
// commutative and associative, the merged bytes depend on the rows alone: neither on the order of
// the merges nor on the number of threads.
//
// A row is its key's length (32 bits), the key, and the value's bytes, in this machine's byte
// order.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "pmi_plugin.hpp"

namespace pmi {

// Values are plain records without padding, so that equal values have equal bytes.
template <class V>
concept TableValue = std::is_trivially_copyable_v<V> && std::has_unique_object_representations_v<V>;

template <TableValue V>
void append_row(std::string &table, std::string_view key, const V &value) {
    const auto key_len = static_cast<std::uint32_t>(key.size());
    table.append(reinterpret_cast<const char *>(&key_len), sizeof key_len);
    table.append(key);
    table.append(reinterpret_cast<const char *>(&value), sizeof value);
}

// The table of a map from string to V, ordered or not.
template <class Map>
std::string encode_table(const Map &map) {
    using V = typename Map::mapped_type;
    std::vector<std::pair<std::string_view, const V *>> rows;
    rows.reserve(map.size());
    std::size_t size = 0;
    for (const auto &[key, value] : map) {
        rows.emplace_back(key, &value);
        size += sizeof(std::uint32_t) + rows.back().first.size() + sizeof(V);
    }
    std::sort(rows.begin(), rows.end());
    std::string table;
    table.reserve(size);
    for (const auto &[key, value] : rows) {
        append_row(table, key, *value);
    }
    return table;
}

// Walks a table row by row: while (row) { use row.key() and row.value(); row.next(); }. Bytes that
// are no table throw Failure(PMI_CODE_BAD_RESULT).
template <TableValue V>
class TableCursor {
public:
    explicit TableCursor(std::string_view table) : rest_(table) { next(); }

    explicit operator bool() const { return !row_.empty(); }
    std::string_view key() const { return key_; }
    V value() const {
        V value;
        std::memcpy(&value, key_.data() + key_.size(), sizeof value);
        return value;
    }
    std::string_view row() const { return row_; } // the row's bytes

    void next() {
        std::uint32_t key_len = 0;
        if (rest_.empty()) {
            row_ = {};
            return;
        }
        if (rest_.size() < sizeof key_len + sizeof(V)) {
            throw Failure(PMI_CODE_BAD_RESULT);
        }
        std::memcpy(&key_len, rest_.data(), sizeof key_len);
        if (rest_.size() - sizeof key_len - sizeof(V) < key_len) {
            throw Failure(PMI_CODE_BAD_RESULT);
        }
        row_ = rest_.substr(0, sizeof key_len + key_len + sizeof(V));
        key_ = row_.substr(sizeof key_len, key_len);
        rest_.remove_prefix(row_.size());
    }

private:
    std::string_view rest_;
    std::string_view row_;
    std::string_view key_;
};

// The table with the rows of both; a key that both have gets the value join(left, right).
template <TableValue V, class Join>
std::string merge_tables(std::string_view left_table, std::string_view right_table, Join join) {
    TableCursor<V> left(left_table);
    TableCursor<V> right(right_table);
    std::string merged;
    merged.reserve(left_table.size() + right_table.size());
    while (left && right) {
        const int order = left.key().compare(right.key());
        if (order == 0) {
            append_row(merged, left.key(), V(join(left.value(), right.value())));
            left.next();
            right.next();
        } else {
            TableCursor<V> &first = order < 0 ? left : right;
            merged.append(first.row());
            first.next();
        }
    }
    for (; left; left.next()) {
        merged.append(left.row());
    }
    for (; right; right.next()) {
        merged.append(right.row());
    }
    return merged;
}

} // namespace pmi
