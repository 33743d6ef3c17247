#include "invocation/answer.h"

#include <algorithm>

namespace store {

namespace {

struct Piece {
    Key key;
    ContentRef content;
};

std::vector<Piece> read_pieces(TempObjects &objects, const std::vector<Key> &keys) {
    std::vector<Piece> pieces;
    for (const Key &key : keys) {
        Piece piece{key, {}};
        if (objects.read(key, piece.content) == OMRALIB_RET_SUCCESS) {
            pieces.push_back(std::move(piece));
        }
    }
    return pieces;
}

/* As many whole records as one object can hold. */
std::vector<std::byte> join(const std::vector<Piece> &pieces) {
    constexpr std::size_t record_bytes = 48;
    constexpr std::size_t max_bytes = UINT32_MAX / record_bytes * record_bytes;
    std::vector<std::byte> joined;
    for (const Piece &piece : pieces) {
        const Bytes bytes = piece.content->bytes();
        const std::size_t length = std::min(bytes.size(), max_bytes - joined.size());
        joined.insert(joined.end(), bytes.begin(), bytes.begin() + static_cast<long>(length));
    }
    return joined;
}

} // namespace

Key join_exceptions(TempObjects &objects, const std::vector<Key> &keys, std::uint32_t timeout_m) {
    if (keys.size() == 1) {
        return objects.exists(keys.front()) ? keys.front() : Key{};
    }
    const std::vector<Piece> pieces = read_pieces(objects, keys);
    if (pieces.empty()) {
        return {};
    }
    Key kept = pieces.front().key;
    if (pieces.size() > 1) {
        const Key key = objects.make_key(TempKind::exceptions);
        if (objects.create(key, join(pieces), timeout_m) == OMRALIB_RET_SUCCESS) {
            kept = key;
        }
    }
    for (const Piece &piece : pieces) {
        if (order_of(piece.key, kept) != 0) {
            objects.remove(piece.key);
        }
    }
    return kept;
}

} // namespace store
