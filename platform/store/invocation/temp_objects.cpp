/* Fresh keys, and looking at objects until the answer is certain. */
#include "invocation/temp_objects.h"

#include <algorithm>
#include <array>
#include <random>

namespace store {

namespace {

constexpr int max_looks = 4;

OMRA_OBJID random_id() {
    std::random_device source;
    OMRA_OBJID id{};
    for (ULONG &word : id.u32_comp) {
        word = source();
    }
    return id;
}

/* What `look` answers once it is not unknown, or the last time. */
template <typename Look>
Status until_known(Look look) {
    Status status = look();
    for (int i = 1; i < max_looks && status == OMRALIB_ERR_UNKNOWN; ++i) {
        status = look();
    }
    return status;
}

} // namespace

TempObjects::TempObjects(Objects &objects) : objects_(objects), process_id_(random_id()) {}

Key TempObjects::make_key(TempKind kind) {
    Key key{};
    key.app_id = reserved_app_id;
    key.flags = static_cast<unsigned char>(kind);
    key.ext_obj_id = process_id_;
    key.obj_id.u64_comp[0] = next_key_++;
    return key;
}

Presence TempObjects::look_for(const Key &key) {
    switch (until_known([&] { return objects_.exists(key); })) {
    case OMRALIB_RET_SUCCESS:
        return Presence::there;
    case OMRALIB_ERR_OBJ_NOT_FOUND:
        return Presence::gone;
    default:
        return Presence::unknown;
    }
}

Status TempObjects::read(const Key &key, Content &content_out) {
    return until_known([&] { return objects_.read(key, true, content_out); });
}

void TempObjects::remove(std::span<const Key> keys) {
    std::array<Key, 32> made;
    std::array<Status, made.size()> statuses{};
    while (!keys.empty()) {
        const auto some = keys.first(std::min(keys.size(), made.size()));
        const auto end = std::copy_if(some.begin(), some.end(), made.begin(),
                                      [](const Key &key) { return !is_null(key); });
        const auto num = static_cast<std::size_t>(end - made.begin());
        objects_.remove_many(std::span(made).first(num), std::span(statuses).first(num));
        keys = keys.subspan(some.size());
    }
}

} // namespace store
