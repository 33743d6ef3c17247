// The names of loaded objects, and the keys that they get.
//
// Every load of an app id has a number, from 1 on. The objects of load L have the keys APP:L:0,
// APP:L:1 and so on, so that key order is the order of the loads and in them that of the input. In
// a store that keeps its objects the names lie beside them, 1,024 in an object: the one that holds
// the names of APP:L:N has the key L:(N / 1024) under the app id APP + 0x10000000, which is none of
// the ordinary ones; nobody counts, lists or evaluates it with the objects of the app id.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "store/store.h"

namespace pmi_cli {

OMRA_OBJKEY loaded_key(unsigned int app_id, std::uint64_t load, std::uint64_t number);

// Used by one thread, and only while its handle is free.
class Names {
public:
    // Those of the store, or, without `keeps`, of this process alone. `handle` outlives them.
    Names(const StoreHandle &handle, bool keeps) : handle_(handle), keeps_(keeps) {}

    // The number of a new load, which begins with these names of its first objects. Throws
    // RunError, as the others do when the store fails.
    std::uint64_t begin_load(unsigned int app_id, const std::vector<std::string> &names);
    // The names of the objects from `first` on, a multiple of kBatch, instead of those it had.
    void set(unsigned int app_id, std::uint64_t load, std::uint64_t first,
             const std::vector<std::string> &names);

    // The name of the object with this key; NULL when it has none. Valid until it is forgotten.
    const std::string *find(const OMRA_OBJKEY &key);

    // Takes away the names of objects that were removed.
    void forget(const std::vector<OMRA_OBJKEY> &keys);

private:
    using Block = std::tuple<unsigned int, std::uint64_t, std::uint64_t>; // app id, load, number
    using Content = std::vector<std::string>;                             // an empty one is no name

    bool create(const Block &block, const Content &names);
    void replace(const Block &block, const Content &names);
    void list(unsigned int app_id);
    Content *content(const OMRA_OBJKEY &key);

    const StoreHandle &handle_;
    const bool keeps_;
    std::set<unsigned int> listed_;  // app ids
    std::set<Block> stored_;         // of these app ids
    std::map<Block, Content> known_; // as far as it has been asked for
};

} // namespace pmi_cli
