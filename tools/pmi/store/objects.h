// The objects of a run: the input, loaded for as long as it lasts, or what is stored already.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "cli/options.h"
#include "store/names.h"
#include "store/place.h"
#include "store/store.h"

namespace pmi_cli {

class Objects {
public:
    // Loads what there is to load; errors as of load_input(). `handle` and `options` outlive them.
    Objects(const StoreHandle &handle, const Options &options);

    unsigned int app_id() const;
    std::uint64_t num_loaded() const { return num_loaded_; }
    // Whether they go with this record, so that nobody else minds when they were last used.
    bool are_temporary() const { return !options_.inputs.empty(); }

    // An object's name, or else its key as text; NULL for a null key. Valid as long as this record.
    const char *name(const OMRA_OBJKEY &key);

private:
    const Options &options_;
    std::optional<TemporaryPlace> place_;
    Names names_;
    std::uint64_t num_loaded_ = 0;
    std::set<std::string> keys_; // as text, of objects without a name
};

} // namespace pmi_cli
