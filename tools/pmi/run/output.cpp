// Results, exceptions and figures, as text, as JSON or raw. A code is printed with the name and the
// text that its owner has for it: the plug-in, the module or the store.
#include "run/output.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <span>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/files.h"

namespace pmi_cli {

namespace {

using Json = nlohmann::ordered_json;

// Names and bytes from outside may be no UTF-8, which JSON has to be.
void write_json(const Json &json) {
    write_stdout(json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
}

bool is_text(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(),
                       [](char c) { return c == '\n' || c == '\t' || (c >= ' ' && c <= '~'); });
}

// Lines of an offset, 16 bytes in hexadecimal, and their characters.
std::string hex_dump(std::string_view bytes) {
    std::string dump;
    for (std::size_t offset = 0; offset < bytes.size(); offset += 16) {
        std::string hex;
        std::string characters;
        for (const char c : bytes.substr(offset, 16)) {
            hex += fmt::format(" {:02x}", static_cast<unsigned char>(c));
            characters += c >= ' ' && c <= '~' ? c : '.';
        }
        dump += fmt::format("{:08x} {:<48}  {}\n", offset, hex, characters);
    }
    return dump;
}

std::string hex_digits(std::string_view bytes) {
    std::string digits;
    for (const char c : bytes) {
        digits += fmt::format("{:02x}", static_cast<unsigned char>(c));
    }
    return digits;
}

struct Printing {
    Objects &objects;
    std::string text;
};

// What the plug-in's printer makes of the result, nothing when it offers nothing.
std::optional<std::string> run_printer(const Outcome &outcome, const Plugin &plugin,
                                       Objects &objects, const Options &options) {
    if (plugin.print == nullptr) {
        return std::nullopt;
    }
    Printing printing{objects, ""};
    PMI_RESULT result{};
    result.format = options.format == Format::kJson ? PMI_FORMAT_JSON : PMI_FORMAT_TABLE;
    result.pdata = outcome.result.get();
    result.data_len = static_cast<unsigned int>(outcome.result_len);
    result.pparams = options.params.empty() ? nullptr : options.params.data();
    result.params_len = static_cast<unsigned int>(options.params.size());
    result.pprogram = &printing;
    result.object_name = [](void *pprogram, const OMRA_OBJKEY *pkey) {
        return static_cast<Printing *>(pprogram)->objects.name(*pkey);
    };
    result.write = [](void *pprogram, const char *ptext, size_t text_len) {
        static_cast<Printing *>(pprogram)->text.append(ptext, text_len);
    };
    if (plugin.print(&result) != 0) {
        fmt::print(stderr, "pmi: the plug-in cannot print this result; its bytes follow\n");
        return std::nullopt;
    }
    return printing.text;
}

std::string result_text(const Outcome &outcome, const Plugin &plugin, Objects &objects,
                        const Options &options) {
    const std::string_view bytes = outcome.bytes();
    if (options.format == Format::kRaw || bytes.empty()) {
        return std::string(bytes);
    }
    if (const auto printed = run_printer(outcome, plugin, objects, options)) {
        return *printed;
    }
    if (!is_text(bytes)) {
        return hex_dump(bytes);
    }
    return std::string(bytes) + (bytes.ends_with('\n') ? "" : "\n");
}

Json result_json(const Outcome &outcome, const Plugin &plugin, Objects &objects,
                 const Options &options) {
    const std::string_view bytes = outcome.bytes();
    if (bytes.empty()) {
        return nullptr;
    }
    if (const auto printed = run_printer(outcome, plugin, objects, options)) {
        Json json = Json::parse(*printed, nullptr, false);
        if (!json.is_discarded()) {
            return json;
        }
        fmt::print(stderr, "pmi: the plug-in printed no JSON; the result's bytes follow\n");
    }
    return is_text(bytes) ? Json{{"text", bytes}} : Json{{"hex", hex_digits(bytes)}};
}

// Positive codes are user functions' and the C++ interface's, negative ones also the store's.
std::string code_text(const Plugin &plugin, int code) {
    const char *text = code < 0 ? Omrapmi_status_text(code) : nullptr;
    if (text == nullptr && plugin.code_text != nullptr) {
        text = plugin.code_text(code);
    }
    if (text != nullptr) {
        return text;
    }
    switch (code) {
#define PMI_CODE_TEXT(name, value, words)                                                          \
    case value:                                                                                    \
        return words;
        PMI_CODE_MAP(PMI_CODE_TEXT)
#undef PMI_CODE_TEXT
    default:
        return "a code of the plug-in";
    }
}

std::string exception_object(const OMRAPMI_EXCEPTION &exception, Objects &objects) {
    if (exception.is_eval == FALSE) {
        return "(a merge)";
    }
    const char *name = objects.name(exception.key);
    return name == nullptr ? "(no object)" : name;
}

std::span<const OMRAPMI_EXCEPTION> first_exceptions(const Outcome &outcome,
                                                    const Options &options) {
    return std::span(outcome.exceptions)
        .first(std::min(options.num_exceptions, outcome.exceptions.size()));
}

struct Figure {
    const char *name; // also the name in JSON
    ULONGLONG OMRALIB_STATS::*value;
};

constexpr Figure kFigures[] = {
    {"objects", &OMRALIB_STATS::num_objects},
    {"bytes", &OMRALIB_STATS::num_bytes},
    {"reads", &OMRALIB_STATS::num_reads},
    {"invocations", &OMRALIB_STATS::num_invocations},
    {"invocations_running", &OMRALIB_STATS::num_invocations_running},
    {"evaluated", &OMRALIB_STATS::num_evaluated},
    {"folds", &OMRALIB_STATS::num_folds},
    {"refusals", &OMRALIB_STATS::num_refusals},
    {"retries", &OMRALIB_STATS::num_retries},
    {"lock_waits", &OMRALIB_STATS::num_lock_waits},
    {"expired", &OMRALIB_STATS::num_expired},
    {"invocation_us", &OMRALIB_STATS::invocation_us},
    {"invocation_bytes", &OMRALIB_STATS::num_invocation_bytes},
};

std::string stats_table(const OMRALIB_STATS &stats) {
    std::string table = "pmi: figures of the store:\n";
    for (const Figure &figure : kFigures) {
        table += fmt::format("{:>21}  {}\n", figure.name, stats.*figure.value);
    }
    return table;
}

Json stats_json(const OMRALIB_STATS &stats) {
    Json json;
    for (const Figure &figure : kFigures) {
        json[figure.name] = stats.*figure.value;
    }
    return json;
}

void report(const Outcome &outcome, const Plugin &plugin, Objects &objects, const Options &options,
            double load_seconds) {
    const auto shown = first_exceptions(outcome, options);
    for (const OMRAPMI_EXCEPTION &exception : shown) {
        fmt::print(stderr, "pmi: {}: {} ({})\n", exception_object(exception, objects),
                   code_text(plugin, exception.code), exception.code);
    }
    if (shown.size() < outcome.exceptions.size()) {
        fmt::print(stderr, "pmi: and {} more exceptions\n",
                   outcome.exceptions.size() - shown.size());
    }
    if (outcome.bytes().empty()) {
        fmt::print(stderr, "pmi: there is no result\n");
    }
    const std::string loaded =
        objects.are_temporary()
            ? fmt::format("{:.3f} s to load {} objects, ", load_seconds, objects.num_loaded())
            : "";
    fmt::print(stderr, "pmi: {} objects matched, {} successful, {} failed; {}{:.3f} s to invoke\n",
               outcome.num_successful + outcome.num_failed, outcome.num_successful,
               outcome.num_failed, loaded, outcome.seconds);
    if (options.stats) {
        fmt::print(stderr, "{}", stats_table(outcome.stats));
    }
}

Json outcome_json(const Outcome &outcome, const Plugin &plugin, Objects &objects,
                  const Options &options, double load_seconds) {
    Json exceptions = Json::array();
    for (const OMRAPMI_EXCEPTION &exception : first_exceptions(outcome, options)) {
        exceptions.push_back({{"object", exception_object(exception, objects)},
                              {"code", exception.code},
                              {"text", code_text(plugin, exception.code)}});
    }
    Json json{{"result", result_json(outcome, plugin, objects, options)},
              {"loaded", objects.num_loaded()},
              {"matched", outcome.num_successful + outcome.num_failed},
              {"successful", outcome.num_successful},
              {"failed", outcome.num_failed},
              {"num_exceptions", outcome.exceptions.size()},
              {"exceptions", std::move(exceptions)},
              {"load_seconds", load_seconds},
              {"invoke_seconds", outcome.seconds}};
    if (options.stats) {
        json["stats"] = stats_json(outcome.stats);
    }
    return json;
}

} // namespace

void print_functions(const Plugin &plugin, Format format) {
    Json json = Json::array();
    std::string table =
        fmt::format("{:<12} {:>3}  {:<16} {}\n", "kind", "id", "name", "description");
    for (const Function &function : plugin.functions) {
        json.push_back({{"kind", kind_name(function.kind)},
                        {"id", function.id},
                        {"name", function.name},
                        {"description", function.description}});
        table += fmt::format("{:<12} {:>3}  {:<16} {}\n", kind_name(function.kind), function.id,
                             function.name, function.description);
    }
    if (format == Format::kJson) {
        write_json(json);
    } else {
        write_stdout(table);
    }
}

void print_outcome(const Outcome &outcome, const Plugin &plugin, Objects &objects,
                   const Options &options, double load_seconds) {
    if (!outcome.lost_host.empty()) {
        fmt::print(stderr, "pmi: {}\n", outcome.lost_host);
    }
    if (options.format == Format::kJson) {
        write_json(outcome_json(outcome, plugin, objects, options, load_seconds));
        return;
    }
    write_stdout(result_text(outcome, plugin, objects, options));
    report(outcome, plugin, objects, options, load_seconds);
}

} // namespace pmi_cli
