// The command line, checked as far as that goes without looking at the plug-in and the input.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pmi_cli {

enum class Command { kRun, kExplain, kFunctions };
enum class Split { kNone, kParagraphs, kLines };
enum class Format { kTable, kJson, kRaw };

// N=TEXT of --index and --index-from.
struct IndexText {
    unsigned int index; // 0 to 7
    std::string text;
    std::string argument; // as it was given, for messages
};

// N@P% of --lose-host.
struct LostHost {
    unsigned int host;    // from 1 on
    unsigned int percent; // of the objects, after which it is lost
};

struct Options {
    Command command = Command::kRun;
    std::string plugin;
    std::string eval;  // empty: the plug-in's first
    std::string merge; // empty: the plug-in's first
    std::string params;
    std::vector<IndexText> terms;
    bool any = false;                 // any term may match, not all must
    std::optional<std::string> query; // in the store's language, instead of the terms
    std::vector<IndexText> fields;    // text is a field's name
    Split split = Split::kNone;
    unsigned int threads = 0; // 0: as many as suit this machine
    unsigned int timeout_s = 86400;
    unsigned int num_hosts = 1;
    std::uint64_t memory_limit = 0; // of the store, in bytes; 0: none
    std::optional<LostHost> lost_host;
    bool stats = false;
    std::size_t num_exceptions = 10;
    Format format = Format::kTable;
    std::vector<std::string> inputs;
};

// The options of a command line; nothing when it only asked for help or the version, which are then
// printed. Throws UsageError, and RunError when they cannot be.
std::optional<Options> parse_options(int argc, char **argv);

} // namespace pmi_cli
