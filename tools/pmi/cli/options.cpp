// The commands, their options and the help texts. CLI11 reads them; what takes several options or a
// syntax of our own is checked behind it, with messages of the same kind.
#include "cli/options.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string_view>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "cli/error.h"
#include "cli/files.h"
#include "cli/help.h"
#include "cli/keys.h"
#include "cli/values.h"
#include "storapp.h"

namespace pmi_cli {

namespace {

// The module puts a header of 8 bytes in front of the parameters.
constexpr std::uint64_t kMaxParamsLen =
    std::numeric_limits<unsigned int>::max() - std::uint64_t{sizeof(std::uint64_t)};

constexpr unsigned int kMaxHosts = 64; // as OMRALIB_CONFIG allows

// A check for CLI11: a whole number from `min` to `max`.
CLI::Validator number(std::uint64_t min, std::uint64_t max) {
    const auto check = [min, max](const std::string &text) -> std::string {
        std::uint64_t value = 0;
        const char *end = text.data() + text.size();
        const auto [ptr, error] = std::from_chars(text.data(), end, value);
        const bool good = error == std::errc{} && ptr == end && value >= min && value <= max;
        return good ? "" : fmt::format("'{}' is not a number from {} to {}", text, min, max);
    };
    return {check, ""};
}

template <typename Number>
constexpr Number kMax = std::numeric_limits<Number>::max();

// A command line as CLI11 leaves it.
struct Arguments {
    Options options;
    std::vector<std::string> keys;
    std::vector<std::string> terms;
    std::vector<std::string> numbers;
    std::vector<std::string> fields;
    std::string params_file;
    std::string lost_host;
};

/* Options of several commands ------------------------------------------------------------------ */

CLI::App *add_command(CLI::App &app, Arguments &arguments, Command command, const char *name,
                      const char *description) {
    CLI::App *added = app.add_subcommand(name, description);
    added->callback([&arguments, command] { arguments.options.command = command; });
    return added;
}

void add_plugin(CLI::App &command, Options &options) {
    command
        .add_option("PLUGIN", options.plugin, "Path of the shared library that holds the functions")
        ->required();
}

CLI::Option *add_format(CLI::App &command, Options &options, const char *name, Format format,
                        const char *description) {
    return command.add_flag_function(
        name, [&options, format](std::int64_t) { options.format = format; }, description);
}

void add_store(CLI::App &command, Options &options) {
    command.add_option("--store", options.store_url, "Store of the objects (default: OMRA_STORE)")
        ->type_name("URL");
}

CLI::Option *add_app_id(CLI::App &command, Options &options, const char *description) {
    return command.add_option("--app-id", options.app_id, description)
        ->type_name("N")
        ->check(number(0, kMaxAppId));
}

CLI::Option *add_query(CLI::App &command, Options &options) {
    return command.add_option("--query", options.query, "Only objects that a query selects")
        ->type_name("QUERY");
}

CLI::Option *add_indexes(CLI::App &command, const char *name, std::vector<std::string> &values,
                         const char *description, const char *type_name = "N=VALUE") {
    return command.add_option(name, values, description)
        ->type_name(type_name)
        ->allow_extra_args(false);
}

void add_key(CLI::App &command, Arguments &arguments) {
    const auto take = [&arguments](const std::string &key) { arguments.keys = {key}; };
    command.add_option_function<std::string>("KEY", take, "Key of the object")->required();
}

// What becomes of the input.
CLI::Option *add_input(CLI::App &command, Arguments &arguments) {
    Options &options = arguments.options;
    add_indexes(command, "--index-from", arguments.fields,
                "Fill index N of a paragraph from its line 'Field:'", "N=Field");
    command
        .add_option_function<std::string>(
            "--split",
            [&options](const std::string &what) {
                options.split = what == "lines" ? Split::kLines : Split::kParagraphs;
            },
            "Cut files into objects: paragraphs or lines")
        ->type_name("WHAT")
        ->check(CLI::IsMember({"paragraphs", "lines"}).description(""));
    return command.add_option("INPUT", options.inputs,
                              "Files, directories, or '-' for standard input");
}

// Input and the store in memory that it may be loaded into, or objects that are stored already.
// Returns --query.
CLI::Option *add_objects(CLI::App &command, Arguments &arguments) {
    Options &options = arguments.options;
    CLI::Option *query = add_query(command, options);
    add_store(command, options);
    add_app_id(command, options, "App id of the stored objects (default: 1)");
    command.add_option("--hosts", options.num_hosts, "Hosts that the store plays")
        ->type_name("N")
        ->capture_default_str()
        ->check(number(1, kMaxHosts));
    command
        .add_option_function<std::string>(
            "--memory-limit",
            [&options](const std::string &size) { options.memory_limit = parse_size(size); },
            "Bytes that a store in memory may use, or with K, M, G (default: no limit)")
        ->type_name("BYTES");
    add_input(command, arguments);
    return query;
}

/* The commands --------------------------------------------------------------------------------- */

void add_run(CLI::App &app, Arguments &arguments) {
    Options &options = arguments.options;
    CLI::App &run =
        *add_command(app, arguments, Command::kRun, "run",
                     "Run a plug-in's function on each object, loaded from the input or "
                     "stored, and print the merged result");
    run.footer(kRunHelp);
    add_plugin(run, options);
    run.add_option("--eval", options.eval, "Function to run on each object (default: the first)")
        ->type_name("NAME");
    run.add_option("--merge", options.merge, "Function that merges results (default: the first)")
        ->type_name("NAME");
    CLI::Option *params = run.add_option("--params", options.params, "Parameters of the function");
    run.add_option("--params-file", arguments.params_file, "File that holds the parameters")
        ->type_name("F")
        ->excludes(params);
    CLI::Option *index =
        add_indexes(run, "--index", arguments.terms, "Only objects whose index N is VALUE");
    CLI::Option *any = run.add_flag("--any", options.any, "One matching --index is enough");
    any->needs(index);
    add_objects(run, arguments)->excludes(index)->excludes(any);
    run.add_option("--threads", options.threads, "Worker threads (default: processors plus one)")
        ->type_name("N")
        ->check(number(1, 1024));
    run.add_option("--timeout", options.timeout_s, "Seconds that the invocation may take")
        ->type_name("S")
        ->capture_default_str()
        ->check(number(1, kMax<unsigned int>));
    run.add_option("--exceptions", options.num_exceptions, "Failed objects to name")
        ->type_name("N")
        ->capture_default_str()
        ->check(number(0, kMax<unsigned int>));
    CLI::Option *json = add_format(run, options, "--json", Format::kJson,
                                   "Print one JSON document instead of text");
    add_format(run, options, "--raw", Format::kRaw, "Print the merged result's bytes")
        ->excludes(json);
    run.add_flag("--stats", options.stats, "Print the store's figures as well");
    run.add_option("--lose-host", arguments.lost_host,
                   "To try it out: lose host N when P% of the work is done")
        ->type_name("N@P%");
}

void add_explain(CLI::App &app, Arguments &arguments) {
    CLI::App &explain = *add_command(app, arguments, Command::kExplain, "explain",
                                     "Say how a query would find the objects that it selects");
    explain.footer(kExplainHelp);
    add_objects(explain, arguments)->required();
}

void add_functions(CLI::App &app, Arguments &arguments) {
    CLI::App &functions = *add_command(app, arguments, Command::kFunctions, "functions",
                                       "List the functions of a plug-in");
    add_plugin(functions, arguments.options);
    add_format(functions, arguments.options, "--json", Format::kJson,
               "Print a JSON document instead of text");
}

void add_load(CLI::App &app, Arguments &arguments) {
    CLI::App &load = *add_command(app, arguments, Command::kLoad, "load",
                                  "Load input as objects that stay in a store");
    load.footer(kLoadHelp);
    add_store(load, arguments.options);
    add_app_id(load, arguments.options, "App id of the objects (default: 1)");
    add_input(load, arguments)->required();
}

void add_list(CLI::App &app, Arguments &arguments) {
    Options &options = arguments.options;
    CLI::App &list = *add_command(app, arguments, Command::kList, "ls",
                                  "List the keys of stored objects, and the names of loaded ones");
    list.footer(kListHelp);
    add_store(list, options);
    add_app_id(list, options, "Only objects of this app id (default: of all)");
    add_query(list, options);
    list.add_option("--limit", options.limit, "List the first N only")
        ->type_name("N")
        ->check(number(0, kMax<std::uint64_t>));
    add_format(list, options, "--json", Format::kJson, "Print a JSON document instead of text");

    CLI::App &count =
        *add_command(app, arguments, Command::kCount, "count", "Count stored objects");
    add_store(count, options);
    add_app_id(count, options, "Only objects of this app id (default: of all)");
    add_query(count, options);
}

void add_single(CLI::App &app, Arguments &arguments) {
    Options &options = arguments.options;
    CLI::App &get = *add_command(app, arguments, Command::kGet, "get",
                                 "Write a stored object's bytes to standard output");
    add_key(get, arguments);
    CLI::App &put =
        *add_command(app, arguments, Command::kPut, "put", "Store a file's bytes as an object");
    add_key(put, arguments);
    put.add_option_function<std::string>(
        "FILE", [&options](const std::string &path) { options.inputs = {path}; },
        "File, or '-' for standard input (default)");
    add_indexes(put, "--index", arguments.terms, "Text of index N, up to 32 bytes");
    add_indexes(put, "--index-number", arguments.numbers, "Number of index N");
    put.add_option("--timeout-m", options.timeout_m,
                   "Minutes after its last use when the object vanishes (default: never)")
        ->type_name("M")
        ->check(number(1, kMax<unsigned int>));
    put.add_flag("--replace", options.replace, "Replace the object if there is one");
    CLI::App &rm = *add_command(app, arguments, Command::kRemove, "rm", "Remove stored objects");
    CLI::Option *keys = rm.add_option("KEY", arguments.keys, "Keys of objects");
    CLI::Option *app_id = add_app_id(rm, options, "App id of the objects that --query selects");
    CLI::Option *query = add_query(rm, options);
    query->description("Remove the objects that a query selects; 'size >= 0' is all")
        ->needs(app_id)
        ->excludes(keys);
    app_id->needs(query);
    for (CLI::App *command : {&get, &put, &rm}) {
        add_store(*command, options);
        command->footer(kKeysHelp);
    }
}

/* Checks of what was given --------------------------------------------------------------------- */

void parse_indexes(Arguments &arguments) {
    Options &options = arguments.options;
    for (const std::string &argument : arguments.fields) {
        IndexText field = parse_index("--index-from", argument, "Field");
        const bool taken = std::any_of(
            options.fields.begin(), options.fields.end(),
            [&field](const IndexText &earlier) { return earlier.index == field.index; });
        if (taken) {
            throw UsageError(fmt::format("--index-from {}: index {} is filled from a field already",
                                         argument, field.index));
        }
        if (field.text.empty()) {
            throw UsageError(fmt::format("--index-from {}: the field's name is missing", argument));
        }
        options.fields.push_back(std::move(field));
    }
    if (!options.fields.empty() && options.split != Split::kParagraphs) {
        throw UsageError("--index-from needs --split paragraphs: only paragraphs have fields");
    }
    for (const std::string &argument : arguments.terms) {
        options.terms.push_back(parse_index("--index", argument, "VALUE"));
    }
    for (const std::string &argument : arguments.numbers) {
        options.numbers.push_back(parse_index("--index-number", argument, "VALUE"));
    }
    if (options.terms.size() > OMRA_NUM_INDEXES) {
        throw UsageError(
            fmt::format("--index is given {} times; 8 times are allowed", options.terms.size()));
    }
}

// Which objects the command is about: those of a store, or input.
void check_objects(Options &options) {
    const char *url = options.store_url ? options.store_url->c_str() : std::getenv("OMRA_STORE");
    options.keeps_objects =
        url != nullptr && *url != '\0' && !std::string_view(url).starts_with("embedded:");
    switch (options.command) {
    case Command::kFunctions:
        return;
    case Command::kRun:
    case Command::kExplain:
        break;
    default:
        if (!options.keeps_objects) {
            throw UsageError(
                "this needs a store that keeps its objects: give one with --store or "
                "OMRA_STORE, such as rados:POOL; the store in memory is empty when pmi "
                "starts and gone when it ends");
        }
        return;
    }
    if (options.keeps_objects && options.memory_limit != 0) {
        throw UsageError("--memory-limit is for the store in memory: in a cluster, set a quota for "
                         "the pool");
    }
    if (options.app_id && !options.inputs.empty()) {
        throw UsageError("--app-id is for objects that are stored: INPUT gets one of its own");
    }
    if (options.split != Split::kNone && options.inputs.empty()) {
        throw UsageError("--split needs INPUT");
    }
}

void check(Arguments &arguments) {
    Options &options = arguments.options;
    parse_indexes(arguments);
    for (const std::string &key : arguments.keys) {
        options.keys.push_back(parse_key(key));
    }
    check_objects(options);
    if (options.query && options.query->empty()) {
        throw UsageError("--query: the query is empty");
    }
    if (options.command == Command::kRemove && options.keys.empty() && !options.query) {
        throw UsageError("KEY is missing: name the objects, or select them with --query");
    }
    if (!arguments.lost_host.empty()) {
        options.lost_host = parse_lost_host(arguments.lost_host, options.num_hosts);
    }
    if (!arguments.params_file.empty()) {
        options.params = read_file(arguments.params_file, kMaxParamsLen, "--params-file");
    }
}

void check_command(const CLI::App &app, const std::string &name) {
    std::string allowed;
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
        if (command->get_name() == name) {
            return;
        }
        allowed += (allowed.empty() ? "" : ", ") + command->get_name();
    }
    throw UsageError(fmt::format("'{}' is no command; allowed are {}", name, allowed));
}

} // namespace

std::optional<Options> parse_options(int argc, char **argv) {
    Arguments arguments;
    CLI::App app("Run a function on many objects in parallel and merge its results.", "pmi");
    app.set_version_flag("--version", "pmi " PMI_VERSION);
    app.require_subcommand(1);
    add_run(app, arguments);
    add_explain(app, arguments);
    add_functions(app, arguments);
    add_load(app, arguments);
    add_list(app, arguments);
    add_single(app, arguments);
    app.footer(kHelp); // of none of the commands

    const std::string command = argc > 1 ? argv[1] : "";
    if (!command.empty() && command[0] != '-') {
        check_command(app, command);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) {
            std::ostringstream asked_for; // help or the version
            app.exit(error, asked_for);
            write_stdout(asked_for.str());
            return std::nullopt;
        }
        throw UsageError(fmt::format("{} (try 'pmi --help')", error.what()));
    }
    check(arguments);
    return std::move(arguments.options);
}

} // namespace pmi_cli
