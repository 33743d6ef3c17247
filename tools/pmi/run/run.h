// One invocation of a plug-in's functions on the objects of the run.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cli/options.h"
#include "plugin/plugin.h"
#include "store/objects.h"

namespace pmi_cli {

struct ModuleFree {
    void operator()(void *block) const { Omrapmi_free(block); }
};

struct Outcome {
    std::unique_ptr<char, ModuleFree> result; // NULL: there is none
    std::size_t result_len = 0;
    std::uint64_t num_successful = 0;
    std::uint64_t num_failed = 0;
    std::vector<OMRAPMI_EXCEPTION> exceptions; // in the order of their objects
    double seconds = 0;
    std::string lost_host; // what became of --lose-host
    OMRALIB_STATS stats{}; // of the store after the invocation

    std::string_view bytes() const { return {result.get(), result_len}; }
};

// Registers the plug-in's functions for objects of `app_id` and starts to serve them. Throws
// RunError.
void start_worker(const Plugin &plugin, const Options &options, unsigned int app_id);

// Invokes `eval` and `merge` on the objects that --query or, without it, `terms` match, and waits.
// Throws RunError, and Cancelled after an interrupt.
Outcome run_invocation(const StoreHandle &handle, const Function &eval, const Function &merge,
                       const OMRAPMI_QUERY_SPEC &terms, const Options &options,
                       const Objects &objects);

} // namespace pmi_cli
