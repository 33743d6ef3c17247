// The commands, their options and the help texts. CLI11 reads them; what takes several options or a
// syntax of our own is checked behind it, with messages of the same kind.
#include "cli/options.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <sstream>
#include <string_view>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "cli/error.h"
#include "cli/files.h"
#include "storapp.h"

namespace pmi_cli {

namespace {

// The module puts a header of 8 bytes in front of the parameters.
constexpr std::uint64_t kMaxParamsLen =
    std::numeric_limits<unsigned int>::max() - std::uint64_t{sizeof(std::uint64_t)};

constexpr const char *kRunHelp = R"(Indexes:
  An object has up to 8 indexes, numbered 0 to 7; --index selects objects through them.
  A whole file has two: 0 is its extension without the dot, 1 its size in bytes, a number.
  A paragraph has those that --index-from fills; a paragraph without the field lacks the index.
  Values are text of up to 32 bytes; of a longer field the first 32 bytes are the value.

Queries:
  --query selects by conditions on index0 to index7, size and age (in seconds):
    index0 = "libs" and (size > 4096 or not index1 between 10 and 0x1F)
    index0 in ("c", "h") and age < 60 limit 100        index0 starts with "lib" sample 2.5%
  A number compares as a number, a text in double quotes byte by byte. 'pmi explain' says what a
  query would find, and how.

Examples:
  pmi run ./word_frequencies.so --params 10 /usr/include
  pmi run ./word_frequencies.so --hosts 4 --query 'index0 = "h" and size > 4096' /usr/include
  pmi run ./grep.so --params 'TODO|FIXME' --index 0=h --index 0=c --any src
  apt-cache dumpavail | pmi run ./record_statistics.so --split paragraphs
      --params 'value=Installed-Size by=Section' --index-from 0=Section --index 0=libs -

The result goes to standard output, everything else to standard error. Exit codes: 0 success,
1 some objects failed, 2 bad usage or input, 3 the invocation failed or standard output cannot be
written, 130 cancelled: Ctrl-C cancels the invocation, a second one ends the program at once.)";

constexpr const char *kExplainHelp =
    R"(Prints how many objects the query may find, then its conditions, the cheapest first, with the number
of objects that each would give and whether they are looked up in an index.

Example:
  pmi explain --query 'index0 = "h" and size > 4096' /usr/include)";

constexpr const char *kHelp = R"(Examples:
  pmi functions ./word_frequencies.so
  pmi run ./word_frequencies.so /usr/include
  pmi explain --query 'index0 = "h" and size > 4096' /usr/include
  pmi run --help)";

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

IndexText parse_index(std::string_view option, const std::string &argument,
                      std::string_view value_name) {
    const auto fail = [&](std::string_view what) {
        throw UsageError(fmt::format("{} {}: {}", option, argument, what));
    };
    IndexText parsed{0, "", argument};
    const std::size_t equals = argument.find('=');
    if (equals == std::string::npos) {
        fail(fmt::format("expected N={}, with N from 0 to 7", value_name));
    }
    const char *end = argument.data() + equals;
    const auto [ptr, error] = std::from_chars(argument.data(), end, parsed.index);
    if (error != std::errc{} || ptr != end || parsed.index >= OMRA_NUM_INDEXES) {
        fail(fmt::format("'{}' is no index; allowed are 0 to 7", argument.substr(0, equals)));
    }
    parsed.text = argument.substr(equals + 1);
    return parsed;
}

void parse_indexes(Options &options, const std::vector<std::string> &terms,
                   const std::vector<std::string> &fields) {
    for (const std::string &argument : fields) {
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
    if (!fields.empty() && options.split != Split::kParagraphs) {
        throw UsageError("--index-from needs --split paragraphs: only paragraphs have fields");
    }
    for (const std::string &argument : terms) {
        options.terms.push_back(parse_index("--index", argument, "VALUE"));
    }
    if (terms.size() > OMRA_NUM_INDEXES) {
        throw UsageError(
            fmt::format("--index is given {} times; 8 times are allowed", terms.size()));
    }
}

std::uint64_t parse_size(const std::string &argument) {
    constexpr std::string_view kUnits = "KMG"; // each 1024 of the one before
    std::uint64_t size = 0;
    const char *end = argument.data() + argument.size();
    const auto [ptr, error] = std::from_chars(argument.data(), end, size);
    const std::string_view unit(ptr, end);
    const std::size_t exponent = unit.empty() ? 0 : kUnits.find(unit) + 1; // 0 for one unknown
    const bool known = unit.empty() || (unit.size() == 1 && exponent != 0);
    const std::uint64_t max = std::numeric_limits<std::uint64_t>::max() >> (10 * exponent);
    if (error != std::errc{} || !known || size == 0 || size > max) {
        throw UsageError(fmt::format("--memory-limit {}: expected a number of bytes above 0, also "
                                     "with K, M or G behind it",
                                     argument));
    }
    return size << (10 * exponent);
}

LostHost parse_lost_host(const std::string &argument, unsigned int num_hosts) {
    LostHost lost{};
    const char *end = argument.data() + argument.size();
    const auto host = std::from_chars(argument.data(), end, lost.host);
    const bool at = host.ec == std::errc{} && host.ptr != end && *host.ptr == '@';
    const auto percent =
        at ? std::from_chars(host.ptr + 1, end, lost.percent) : std::from_chars_result{};
    if (!at || percent.ec != std::errc{} || std::string_view(percent.ptr, end) != "%" ||
        lost.percent > 100) {
        throw UsageError(
            fmt::format("--lose-host {}: expected N@P%, with P from 0 to 100", argument));
    }
    if (lost.host == 0 || lost.host > num_hosts) {
        throw UsageError(fmt::format("--lose-host {}: there is no host {}; with --hosts {} there "
                                     "are 1 to {}",
                                     argument, lost.host, num_hosts, num_hosts));
    }
    return lost;
}

// What becomes of the input, and the store that it is loaded into. Returns --query.
CLI::Option *add_input_options(CLI::App &command, Options &options,
                               std::vector<std::string> &fields) {
    CLI::Option *query =
        command.add_option("--query", options.query, "Only objects that a query selects")
            ->type_name("QUERY");
    command
        .add_option("--index-from", fields, "Fill index N of a paragraph from its line 'Field:'")
        ->type_name("N=Field")
        ->allow_extra_args(false);
    command
        .add_option_function<std::string>(
            "--split",
            [&options](const std::string &what) {
                options.split = what == "lines" ? Split::kLines : Split::kParagraphs;
            },
            "Cut files into objects: paragraphs or lines")
        ->type_name("WHAT")
        ->check(CLI::IsMember({"paragraphs", "lines"}).description(""));
    command.add_option("--hosts", options.num_hosts, "Hosts that the store plays")
        ->type_name("N")
        ->capture_default_str()
        ->check(number(1, kMaxHosts));
    command
        .add_option_function<std::string>(
            "--memory-limit",
            [&options](const std::string &size) { options.memory_limit = parse_size(size); },
            "Bytes that the store may use, or with K, M, G (default: no limit)")
        ->type_name("BYTES");
    command.add_option("INPUT", options.inputs, "Files, directories, or '-' for standard input");
    return query;
}

void add_run_options(CLI::App &run, Options &options, std::vector<std::string> &terms,
                     std::vector<std::string> &fields, std::string &params_file,
                     std::string &lost_host) {
    const auto format_flag = [&options](Format format) {
        return [&options, format](std::int64_t) { options.format = format; };
    };
    run.add_option("--eval", options.eval, "Function to run on each object (default: the first)")
        ->type_name("NAME");
    run.add_option("--merge", options.merge, "Function that merges results (default: the first)")
        ->type_name("NAME");
    CLI::Option *params = run.add_option("--params", options.params, "Parameters of the function");
    run.add_option("--params-file", params_file, "File that holds the parameters")
        ->type_name("F")
        ->excludes(params);
    CLI::Option *index = run.add_option("--index", terms, "Only objects whose index N is VALUE");
    index->type_name("N=VALUE")->allow_extra_args(false);
    CLI::Option *any = run.add_flag("--any", options.any, "One matching --index is enough");
    any->needs(index);
    add_input_options(run, options, fields)->excludes(index)->excludes(any);
    run.add_option("--threads", options.threads, "Worker threads (default: processors plus one)")
        ->type_name("N")
        ->check(number(1, 1024));
    run.add_option("--timeout", options.timeout_s, "Seconds that the invocation may take")
        ->type_name("S")
        ->capture_default_str()
        ->check(number(1, std::numeric_limits<unsigned int>::max()));
    run.add_option("--exceptions", options.num_exceptions, "Failed objects to name")
        ->type_name("N")
        ->capture_default_str()
        ->check(number(0, std::numeric_limits<unsigned int>::max()));
    CLI::Option *json = run.add_flag_function("--json", format_flag(Format::kJson),
                                              "Print one JSON document instead of text");
    run.add_flag_function("--raw", format_flag(Format::kRaw), "Print the merged result's bytes")
        ->excludes(json);
    run.add_flag("--stats", options.stats, "Print the store's figures as well");
    run.add_option("--lose-host", lost_host,
                   "To try it out: lose host N when P% of the work is done")
        ->type_name("N@P%");
}

} // namespace

std::optional<Options> parse_options(int argc, char **argv) {
    Options options;
    std::vector<std::string> terms;
    std::vector<std::string> fields;
    std::string params_file;
    std::string lost_host;

    CLI::App app("Run a function on many objects in parallel and merge its results.", "pmi");
    app.set_version_flag("--version", "pmi " PMI_VERSION);
    app.require_subcommand(1);
    app.footer(kHelp);
    CLI::App *run = app.add_subcommand("run", "Load input as objects, run a plug-in's function on "
                                              "each, and print the merged result");
    run->add_option("PLUGIN", options.plugin, "Path of the shared library that holds the functions")
        ->required();
    add_run_options(*run, options, terms, fields, params_file, lost_host);
    run->footer(kRunHelp);
    CLI::App *explain = app.add_subcommand("explain", "Load input as objects and say how a query "
                                                      "would find those that it selects");
    add_input_options(*explain, options, fields)->required();
    explain->get_option("INPUT")->required();
    explain->footer(kExplainHelp);
    CLI::App *functions = app.add_subcommand("functions", "List the functions of a plug-in");
    functions
        ->add_option("PLUGIN", options.plugin,
                     "Path of the shared library that holds the functions")
        ->required();
    functions->add_flag_function(
        "--json", [&options](std::int64_t) { options.format = Format::kJson; },
        "Print a JSON document instead of text");

    const std::string command = argc > 1 ? argv[1] : "";
    if (!command.empty() && command[0] != '-' && command != "run" && command != "explain" &&
        command != "functions") {
        throw UsageError(
            fmt::format("'{}' is no command; allowed are run, explain and functions", command));
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
    options.command = functions->parsed() ? Command::kFunctions
                      : explain->parsed() ? Command::kExplain
                                          : Command::kRun;
    parse_indexes(options, terms, fields);
    if (options.query && options.query->empty()) {
        throw UsageError("--query: the query is empty");
    }
    if (!lost_host.empty()) {
        options.lost_host = parse_lost_host(lost_host, options.num_hosts);
    }
    if (!params_file.empty()) {
        options.params = read_file(params_file, kMaxParamsLen, "--params-file");
    }
    return options;
}

} // namespace pmi_cli
