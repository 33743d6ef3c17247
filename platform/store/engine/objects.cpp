/* What follows for sets of objects from the operations on single ones. */
#include "engine/objects.h"

#include <algorithm>

#include "engine/key_sort.h"

namespace store {

namespace {

constexpr std::size_t keys_at_a_time = 4096;

/* `one(i)` for each of `num`; success, or what the first that failed answered. */
template <typename One>
Status each(std::size_t num, std::span<Status> statuses_out, One one) {
    Status all = OMRALIB_RET_SUCCESS;
    for (std::size_t i = 0; i < num; ++i) {
        statuses_out[i] = one(i);
        if (all == OMRALIB_RET_SUCCESS) {
            all = statuses_out[i];
        }
    }
    return all;
}

/* Puts the first `limit` keys in key order and drops the others. */
void keep_first(std::vector<Key> &keys, std::uint64_t limit) {
    if (limit < keys.size()) {
        const auto end = keys.begin() + static_cast<std::ptrdiff_t>(limit);
        std::partial_sort(keys.begin(), end, keys.end(), KeyLess());
        keys.erase(end, keys.end());
    } else {
        sort_keys(keys);
    }
}

} // namespace

Status Objects::create_many(std::span<const NewObject> objects, std::span<Status> statuses_out) {
    return each(objects.size(), statuses_out,
                [&](std::size_t i) { return create(objects[i].key, objects[i].spec); });
}

Status Objects::remove_many(std::span<const Key> keys, std::span<Status> statuses_out) {
    return each(keys.size(), statuses_out, [&](std::size_t i) { return remove(keys[i]); });
}

Status find(Objects &objects, const Selection &selection, const Part *part,
            std::vector<Key> &keys_out, const SearchCheck &check) {
    std::unique_ptr<Scan> scan;
    Status status = objects.scan(selection, part, scan);
    ScanPiece all;
    if (status == OMRALIB_RET_SUCCESS) {
        all.keys.reserve(scan->expected());
    }
    unsigned int num_pieces = 0;
    while (status == OMRALIB_RET_SUCCESS && !all.is_last) {
        status = scan->next(keys_at_a_time, false, all);
        if (status == OMRALIB_RET_SUCCESS && check && ++num_pieces % 8 == 0) {
            status = check();
        }
    }
    if (status == OMRALIB_RET_SUCCESS) {
        keep_first(all.keys, selection.limit);
        keys_out = std::move(all.keys);
    }
    return status;
}

} // namespace store
