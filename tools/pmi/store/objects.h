// The input as objects of the store: their keys, names and indexes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/options.h"
#include "input/inputs.h"
#include "pmicli.h"
#include "store/store.h"

namespace pmi_cli {

// The loaded objects. A key holds its object's number, most significant byte first, so that keys
// sorted by their bytes stand in the order of the input.
class Objects {
public:
    std::size_t size() const { return names_.size(); }

    // Stores a piece of input. Throws RunError.
    void store(const StoreHandle &handle, const Piece &piece, const std::vector<IndexText> &fields);

    // An object's number, size() for a key of no object. A key that carries OMRA_APPID_NO_RENEW
    // names the same object as without.
    std::size_t number(const OMRA_OBJKEY &key) const;
    // An object's name, NULL for a key of no object. Valid as long as this record.
    const char *name(const OMRA_OBJKEY &key) const;

private:
    std::vector<std::string> names_; // by number
};

// Loads every input of `options`. Throws UsageError and RunError.
Objects load_objects(const StoreHandle &handle, const Options &options);

// The query that the --index options ask for. Throws UsageError for a value that no object can have
// and for an index that nothing fills.
OMRAPMI_QUERY_SPEC make_query(const Options &options);

} // namespace pmi_cli
