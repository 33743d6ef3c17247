// The command line, checked as far as that goes without looking at the plug-in and the input.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pmi_cli {

enum class Command { kRun, kFunctions };
enum class Split { kNone, kParagraphs, kLines };
enum class Format { kTable, kJson, kRaw };

// N=TEXT of --index and --index-from.
struct IndexText {
    unsigned int index; // 0 to 7
    std::string text;
    std::string argument; // as it was given, for messages
};

struct Options {
    Command command = Command::kRun;
    std::string plugin;
    std::string eval;  // empty: the plug-in's first
    std::string merge; // empty: the plug-in's first
    std::string params;
    std::vector<IndexText> terms;
    bool any = false;              // any term may match, not all must
    std::vector<IndexText> fields; // text is a field's name
    Split split = Split::kNone;
    unsigned int threads = 0; // 0: as many as suit this machine
    unsigned int timeout_s = 86400;
    std::size_t num_exceptions = 10;
    Format format = Format::kTable;
    std::vector<std::string> inputs;
};

// The options of a command line; nothing when it only asked for help or the version, which are then
// printed. Throws UsageError.
std::optional<Options> parse_options(int argc, char **argv);

} // namespace pmi_cli
