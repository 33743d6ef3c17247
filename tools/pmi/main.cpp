// The pmi program: load input as objects of a store in this process, invoke a plug-in's functions
// on them, print the merged result.
//
//   options -> plugin -> store -> objects (inputs) -> run -> output
//
// with progress beside objects, and supervisor beside run, which has progress and interrupt. The
// other commands go part of the way: functions as far as the plug-in, explain as far as the objects
// and no plug-in.
//
// Everything the user gave is checked before the first object is loaded.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "cli/error.h"
#include "cli/files.h"
#include "cli/interrupt.h"
#include "cli/options.h"
#include "plugin/plugin.h"
#include "run/output.h"
#include "run/run.h"
#include "store/objects.h"
#include "store/store.h"
#include <fmt/format.h>

namespace pmi_cli {
namespace {

// What does not go together once the kind of the function is known.
void check_input(const Function &eval, const Options &options) {
    const bool once = eval.kind == OMRAPMI_FUNC_INVOKE_ONCE_EVAL;
    if (options.inputs.empty() && !once) {
        throw UsageError("INPUT is missing: give a file, a directory, or '-' for standard input");
    }
    if (once && (!options.terms.empty() || options.query)) {
        throw UsageError(fmt::format("{} does not go with '{}': it runs on no object",
                                     options.query ? "--query" : "--index", eval.name));
    }
}

// Before the input is loaded, when a query costs nothing to look at.
void check_query(const StoreHandle &handle, const Options &options) {
    if (options.query) {
        explain_query(handle, *options.query);
    }
}

int explain(const Options &options) {
    configure_store(options);
    const StoreHandle handle;
    check_query(handle, options);
    load_objects(handle, options);
    write_stdout(explain_query(handle, *options.query));
    return kExitSuccess;
}

int run(const Plugin &plugin, const Options &options) {
    const Function &eval = plugin.find_eval(options.eval);
    const Function &merge = plugin.find_merge(options.merge);
    const OMRAPMI_QUERY_SPEC terms = make_query(options);
    check_input(eval, options);

    configure_store(options);
    const StoreHandle handle;
    check_query(handle, options);
    const auto start = std::chrono::steady_clock::now();
    const Objects objects = load_objects(handle, options);
    const std::chrono::duration<double> load_time = std::chrono::steady_clock::now() - start;

    start_worker(plugin, options);
    const Outcome outcome = run_invocation(handle, eval, merge, terms, options, objects);
    print_outcome(outcome, plugin, objects, options, load_time.count());
    const bool failures = outcome.num_failed != 0 || !outcome.exceptions.empty();
    return failures ? kExitObjectsFailed : kExitSuccess;
}

int run_command(const Options &options) {
    if (options.command == Command::kExplain) {
        return explain(options);
    }
    const Plugin plugin = load_plugin(options.plugin);
    if (options.command == Command::kFunctions) {
        print_functions(plugin, options.format);
        return kExitSuccess;
    }
    return run(plugin, options);
}

int pmi_main(int argc, char **argv) {
    handle_interrupts();
    try {
        const std::optional<Options> options = parse_options(argc, argv);
        return options ? run_command(*options) : int{kExitSuccess};
    } catch (const UsageError &error) {
        fmt::print(stderr, "pmi: {}\n", error.what());
        return kExitUsage;
    } catch (const Cancelled &cancelled) {
        fmt::print(stderr, "pmi: {}\n", cancelled.what());
        end_interrupted();
    } catch (const std::exception &error) {
        fmt::print(stderr, "pmi: {}\n", error.what());
        // User functions may still be running after a time-out: end without destroying what they
        // use.
        std::fflush(stdout);
        std::_Exit(kExitFailed);
    }
}

} // namespace
} // namespace pmi_cli

int main(int argc, char **argv) {
    return pmi_cli::pmi_main(argc, argv);
}
