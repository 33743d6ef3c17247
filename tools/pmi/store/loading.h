// The input as objects of the store.
#pragma once

#include <cstdint>

#include "cli/options.h"
#include "pmicli.h"
#include "store/names.h"
#include "store/store.h"

namespace pmi_cli {

// Text from the first byte on, cut after 32 bytes and padded with zeros.
OMRA_INDEX_VALUE text_value(std::string_view text);
OMRA_INDEX_VALUE number_value(std::uint64_t number);

// The values that --index and --index-number of 'pmi put' ask for. Throws UsageError.
std::vector<OMRA_OBJ_INDEX> make_indexes(const Options &options);

// The query that the --index options ask for. Throws UsageError for a value that no object can have
// and for an index that nothing fills.
OMRAPMI_QUERY_SPEC make_query(const Options &options);

// Loads every input of `options` as objects of `app_id` that vanish `timeout_m` minutes after their
// last use (0: never). Returns their number. Throws UsageError and RunError, and, where the store
// keeps its objects, Cancelled after an interrupt; nothing that was loaded stays then.
std::uint64_t load_input(const StoreHandle &handle, Names &names, const Options &options,
                         unsigned int app_id, unsigned int timeout_m);

} // namespace pmi_cli
