// The pmi program: load input as objects of a store in this process, invoke a plug-in's functions
// on them, print the merged result.
//
//   options -> plugin -> objects (inputs) -> run -> output, with progress beside the middle two
//
// Everything the user gave is checked before the first object is loaded.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include <fmt/format.h>
#include <unistd.h>

#include "error.h"
#include "objects.h"
#include "options.h"
#include "output.h"
#include "plugin.h"
#include "run.h"

namespace pmi_cli {
namespace {

// Ends the line of progress, then lets the signal end the program as it would have: a shell sees
// 130.
void on_interrupt(int number) {
    const int saved_errno = errno;
    if (isatty(STDERR_FILENO) == 1) {
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, "\n", 1);
    }
    std::raise(number); // its handler is gone: SA_RESETHAND
    errno = saved_errno;
}

void handle_interrupt() {
    struct sigaction action {};
    sigaction(SIGINT, nullptr, &action);
    if (action.sa_handler == SIG_IGN) {
        return; // whoever started the program wants it to go on
    }
    action.sa_handler = on_interrupt;
    action.sa_flags = SA_RESETHAND;
    sigaction(SIGINT, &action, nullptr);
}

// What does not go together once the kind of the function is known.
void check_input(const Function &eval, const Options &options) {
    const bool once = eval.kind == OMRAPMI_FUNC_INVOKE_ONCE_EVAL;
    if (options.inputs.empty() && !once) {
        throw UsageError("INPUT is missing: give a file, a directory, or '-' for standard input");
    }
    if (once && !options.terms.empty()) {
        throw UsageError(
            fmt::format("--index does not go with '{}': it runs on no object", eval.name));
    }
}

int run(const Plugin &plugin, const Options &options) {
    const Function &eval = plugin.find_eval(options.eval);
    const Function &merge = plugin.find_merge(options.merge);
    const OMRAPMI_QUERY_SPEC query = make_query(options);
    check_input(eval, options);

    const StoreHandle handle;
    const auto start = std::chrono::steady_clock::now();
    const Objects objects = load_objects(handle, options);
    const std::chrono::duration<double> load_time = std::chrono::steady_clock::now() - start;

    start_worker(plugin, options);
    const Outcome outcome = run_invocation(handle, eval, merge, query, options, objects);
    print_outcome(outcome, plugin, objects, options, load_time.count());
    const bool failures = outcome.num_failed != 0 || !outcome.exceptions.empty();
    return failures ? kExitObjectsFailed : kExitSuccess;
}

int pmi_main(int argc, char **argv) {
    handle_interrupt();
    try {
        const std::optional<Options> options = parse_options(argc, argv);
        if (!options) {
            return kExitSuccess;
        }
        const Plugin plugin = load_plugin(options->plugin);
        if (options->command == Command::kFunctions) {
            print_functions(plugin, options->format);
            return kExitSuccess;
        }
        return run(plugin, *options);
    } catch (const UsageError &error) {
        fmt::print(stderr, "pmi: {}\n", error.what());
        return kExitUsage;
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
