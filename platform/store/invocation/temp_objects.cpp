#include "invocation/temp_objects.h"

#include <random>

namespace store {

namespace {

OMRA_OBJID random_id() {
    std::random_device source;
    OMRA_OBJID id{};
    for (ULONG &word : id.u32_comp) {
        word = source();
    }
    return id;
}

} // namespace

TempObjects::TempObjects(Engine &engine) : engine_(engine), process_id_(random_id()) {}

Key TempObjects::make_key(TempKind kind) {
    Key key{};
    key.app_id = reserved_app_id;
    key.flags = static_cast<unsigned char>(kind);
    key.ext_obj_id = process_id_;
    key.obj_id.u64_comp[0] = next_key_++;
    return key;
}

void TempObjects::renew(const Key &key) {
    ContentRef content;
    engine_.read(key, true, content);
}

} // namespace store
