// Blocks of names in the store, read when they are first asked for. A block is its names, each with
// a zero behind it. Removing makes blocks anew without a lock: what two programs that remove at the
// same time may leave is a name without an object, which is harmless.
#include "store/names.h"

#include <algorithm>
#include <string_view>

#include "cli/keys.h"

namespace pmi_cli {

namespace {

constexpr unsigned int kNamesAppId = 0x10000000; // and the app id of the objects
constexpr const char *kCannotBeStored = "the names of the objects cannot be stored";

std::string joined(const std::vector<std::string> &names) {
    std::string bytes;
    for (const std::string &name : names) {
        bytes.append(name).append(1, '\0');
    }
    return bytes;
}

std::vector<std::string> split(std::string_view bytes) {
    std::vector<std::string> names;
    while (!bytes.empty()) {
        const std::size_t end = std::min(bytes.find('\0'), bytes.size());
        names.emplace_back(bytes.substr(0, end));
        bytes.remove_prefix(std::min(end + 1, bytes.size()));
    }
    return names;
}

unsigned int length(const std::string &bytes) {
    return static_cast<unsigned int>(bytes.size());
}

OMRA_OBJKEY block_key(unsigned int app_id, std::uint64_t load, std::uint64_t number) {
    return loaded_key(app_id + kNamesAppId, load, number);
}

} // namespace

OMRA_OBJKEY loaded_key(unsigned int app_id, std::uint64_t load, std::uint64_t number) {
    OMRA_OBJKEY key{};
    key.app_id = app_id;
    key.ext_obj_id.u64_comp[0] = load;
    key.obj_id.u64_comp[0] = number;
    return key;
}

// False when somebody else has stored such a block.
bool Names::create(const Block &block, const Content &names) {
    if (!keeps_) {
        known_[block] = names;
        return true;
    }
    const std::string bytes = joined(names);
    const int status = Omralib_store_obj(handle_.get(), 0, bytes.data(), length(bytes), 0,
                                         std::apply(block_key, block));
    if (status == OMRALIB_ERR_OBJ_EXISTS) {
        return false;
    }
    check_status(status, kCannotBeStored);
    stored_.insert(block);
    return true;
}

// A block without names goes.
void Names::replace(const Block &block, const Content &names) {
    const OMRA_OBJKEY key = std::apply(block_key, block);
    const std::string bytes = joined(names);
    const int status =
        bytes.size() == names.size() // zeros alone
            ? Omralib_remove_obj(handle_.get(), 0, key)
            : Omralib_replace_obj(handle_.get(), bytes.data(), length(bytes), 0, nullptr, 0, key);
    if (status != OMRALIB_ERR_OBJ_NOT_FOUND) {
        check_status(status, kCannotBeStored);
    }
}

// Learns which blocks there are.
void Names::list(unsigned int app_id) {
    if (keeps_ && listed_.insert(app_id).second) {
        for (const OMRA_OBJKEY &key : find_keys(handle_, app_id + kNamesAppId, "")) {
            stored_.insert({app_id, key.ext_obj_id.u64_comp[0], key.obj_id.u64_comp[0]});
        }
    }
}

std::uint64_t Names::begin_load(unsigned int app_id, const std::vector<std::string> &names) {
    list(app_id);
    const auto above = stored_.lower_bound({app_id + 1, 0, 0});
    const bool is_first = above == stored_.begin() || std::get<0>(*std::prev(above)) != app_id;
    std::uint64_t load = is_first ? 1 : std::get<1>(*std::prev(above)) + 1;
    while (!create({app_id, load, 0}, names)) {
        ++load;
    }
    return load;
}

void Names::set(unsigned int app_id, std::uint64_t load, std::uint64_t first,
                const std::vector<std::string> &names) {
    const Block block{app_id, load, first / kBatch};
    if (stored_.contains(block)) {
        replace(block, names);
    } else if (!create(block, names)) {
        check_status(OMRALIB_ERR_OBJ_EXISTS, kCannotBeStored);
    }
}

// The block that would have the name of this key; NULL when there is none.
Names::Content *Names::content(const OMRA_OBJKEY &key) {
    const std::uint64_t number = key.obj_id.u64_comp[0];
    const unsigned int app_id = key.app_id & ~OMRA_APPID_NO_RENEW;
    const Block block{app_id, key.ext_obj_id.u64_comp[0], number / kBatch};
    OMRA_OBJKEY plain = key;
    plain.app_id = app_id;
    if (key_order(plain, loaded_key(app_id, std::get<1>(block), number)) != 0) {
        return nullptr; // it was not loaded
    }
    list(app_id);
    auto place = known_.find(block);
    if (place == known_.end() && stored_.contains(block)) {
        std::string bytes;
        read_object(handle_, std::apply(block_key, block), bytes);
        place = known_.emplace(block, split(bytes)).first;
    }
    const bool is_in = place != known_.end() && number % kBatch < place->second.size();
    return is_in ? &place->second : nullptr;
}

const std::string *Names::find(const OMRA_OBJKEY &key) {
    const Content *names = content(key);
    const std::string *name =
        names == nullptr ? nullptr : &(*names)[key.obj_id.u64_comp[0] % kBatch];
    return name == nullptr || name->empty() ? nullptr : name;
}

void Names::forget(const std::vector<OMRA_OBJKEY> &keys) {
    std::set<Block> changed;
    for (const OMRA_OBJKEY &key : keys) {
        if (Content *names = content(key)) {
            const std::uint64_t number = key.obj_id.u64_comp[0];
            (*names)[number % kBatch].clear();
            changed.insert({key.app_id, key.ext_obj_id.u64_comp[0], number / kBatch});
        }
    }
    for (const Block &block : changed) {
        replace(block, known_[block]);
    }
}

} // namespace pmi_cli
