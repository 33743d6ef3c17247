/* Reading the objects and storing them as one. */
#include "invocation/exceptions.h"

#include <algorithm>

namespace store {

namespace {

struct ReadObject {
    Key key;
    Content content;
};

Status read_objects(TempObjects &objects, const std::vector<Key> &keys,
                    std::vector<ReadObject> &read) {
    for (const Key &key : keys) {
        ReadObject object{key, {}};
        const Status status = objects.read(key, object.content);
        if (status == OMRALIB_RET_SUCCESS) {
            read.push_back(std::move(object));
        } else if (status != OMRALIB_ERR_OBJ_NOT_FOUND) {
            return OMRALIB_ERR_UNKNOWN;
        }
    }
    return OMRALIB_RET_SUCCESS;
}

/* As many whole records as one object can hold. */
std::vector<std::byte> join(const std::vector<ReadObject> &read) {
    std::vector<std::byte> joined;
    for (const ReadObject &object : read) {
        const Bytes bytes = object.content.bytes();
        const std::size_t length = std::min(bytes.size(), max_exceptions_bytes - joined.size());
        joined.insert(joined.end(), bytes.begin(), bytes.begin() + static_cast<long>(length));
    }
    return joined;
}

/* The key of a new object, under another one as long as the outcome is unknown; a null key when
 * there is no room. */
Key store_joined(TempObjects &objects, Bytes joined, std::uint32_t timeout_m) {
    constexpr int max_tries = 4;
    for (int i = 0; i < max_tries; ++i) {
        const Key key = objects.make_key(TempKind::exceptions);
        const Status status = objects.create(key, joined, timeout_m);
        if (status == OMRALIB_RET_SUCCESS) {
            return key;
        }
        if (status != OMRALIB_ERR_UNKNOWN) {
            break;
        }
        objects.remove({key});
    }
    return {};
}

} // namespace

Status join_exceptions(TempObjects &objects, const std::vector<Key> &keys, std::uint32_t timeout_m,
                       Key &key_out) {
    if (keys.size() == 1) {
        const Presence presence = objects.look_for(keys.front());
        key_out = presence == Presence::there ? keys.front() : Key{};
        return presence != Presence::unknown ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_UNKNOWN;
    }
    std::vector<ReadObject> read;
    const Status status = read_objects(objects, keys, read);
    if (status != OMRALIB_RET_SUCCESS || read.empty()) {
        return status;
    }
    Key kept = read.front().key;
    if (read.size() > 1) {
        const Key key = store_joined(objects, join(read), timeout_m);
        kept = is_null(key) ? kept : key;
    }
    for (const ReadObject &object : read) {
        if (order_of(object.key, kept) != 0) {
            objects.remove({object.key});
        }
    }
    key_out = kept;
    return OMRALIB_RET_SUCCESS;
}

} // namespace store
