// The pmi program: invoke a plug-in's functions on objects, the input or those of a store, and
// print the merged result; or work on the objects of a store without a plug-in.
//
//   options -> plugin -> store -> objects (names, loading, inputs) -> run -> output
//   options -> store -> commands
//
// with progress beside loading, and supervisor beside run, which has progress and interrupt. Of the
// other commands here, functions goes as far as the plug-in, and explain as far as the objects and
// needs no plug-in.
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
#include "commands/commands.h"
#include "plugin/plugin.h"
#include "run/output.h"
#include "run/run.h"
#include "store/loading.h"
#include "store/objects.h"
#include "store/store.h"
#include <fmt/format.h>

namespace pmi_cli {
namespace {

void require_objects(const Options &options) {
    if (options.inputs.empty() && !options.keeps_objects) {
        throw UsageError(
            "INPUT is missing: give a file, a directory, or '-' for standard input; or, "
            "with --store or OMRA_STORE, a store that keeps objects");
    }
}

// What does not go together once the kind of the function is known.
void check_input(const Function &eval, const Options &options) {
    const bool once = eval.kind == OMRAPMI_FUNC_INVOKE_ONCE_EVAL;
    if (!once) {
        require_objects(options);
    }
    if (once && (!options.terms.empty() || options.query)) {
        throw UsageError(fmt::format("{} does not go with '{}': it runs on no object",
                                     options.query ? "--query" : "--index", eval.name));
    }
}

// Before the input is loaded, when a query costs nothing to look at.
void check_query(const StoreHandle &handle, const Options &options) {
    if (options.query) {
        explain_query(handle, options.app_id.value_or(kAppId), *options.query);
    }
}

int explain(const Options &options) {
    require_objects(options);
    configure_store(options);
    const StoreHandle handle;
    check_query(handle, options);
    const Objects objects(handle, options);
    write_stdout(explain_query(handle, objects.app_id(), *options.query));
    return kExitSuccess;
}

int run(const Options &options) {
    const Plugin plugin = load_plugin(options.plugin);
    const Function &eval = plugin.find_eval(options.eval);
    const Function &merge = plugin.find_merge(options.merge);
    const OMRAPMI_QUERY_SPEC terms = make_query(options);
    check_input(eval, options);

    configure_store(options);
    const StoreHandle handle;
    check_query(handle, options);
    const auto start = std::chrono::steady_clock::now();
    Objects objects(handle, options);
    const std::chrono::duration<double> load_time = std::chrono::steady_clock::now() - start;

    start_worker(plugin, options, objects.app_id());
    const Outcome outcome = run_invocation(handle, eval, merge, terms, options, objects);
    print_outcome(outcome, plugin, objects, options, load_time.count());
    const bool failures = outcome.num_failed != 0 || !outcome.exceptions.empty();
    return failures ? kExitObjectsFailed : kExitSuccess;
}

int functions(const Options &options) {
    print_functions(load_plugin(options.plugin), options.format);
    return kExitSuccess;
}

int run_command(const Options &options) {
    switch (options.command) {
    case Command::kRun:
        return run(options);
    case Command::kExplain:
        return explain(options);
    case Command::kFunctions:
        return functions(options);
    case Command::kLoad:
        return load_command(options);
    case Command::kList:
        return list_command(options);
    case Command::kCount:
        return count_command(options);
    case Command::kGet:
        return get_command(options);
    case Command::kPut:
        return put_command(options);
    case Command::kRemove:
        return remove_command(options);
    }
    return kExitUsage; // there is no other
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
