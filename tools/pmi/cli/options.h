// The command line, checked as far as that goes without looking at the plug-in and the input.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "storkey.h"

namespace pmi_cli {

enum class Command { kRun, kExplain, kFunctions, kLoad, kList, kCount, kGet, kPut, kRemove };
enum class Split { kNone, kParagraphs, kLines };
enum class Format { kTable, kJson, kRaw };

// N=TEXT of --index, --index-number and --index-from.
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
    std::optional<std::string> store_url; // of --store, else the environment's
    bool keeps_objects = false; // the store, which is then not the one in this process's memory
    std::optional<unsigned int> app_id;
    std::string plugin;
    std::string eval;  // empty: the plug-in's first
    std::string merge; // empty: the plug-in's first
    std::string params;
    std::vector<IndexText> terms;
    bool any = false;                 // any term may match, not all must
    std::optional<std::string> query; // in the store's language, instead of the terms
    std::vector<IndexText> fields;    // text is a field's name
    std::vector<IndexText> numbers;   // index values, as `terms` are, of an object to put
    Split split = Split::kNone;
    unsigned int threads = 0; // 0: as many as suit this machine
    unsigned int timeout_s = 86400;
    unsigned int timeout_m = 0; // of an object to put
    unsigned int num_hosts = 1;
    std::uint64_t memory_limit = 0; // of the store, in bytes; 0: none
    std::optional<LostHost> lost_host;
    bool stats = false;
    bool replace = false;
    std::size_t num_exceptions = 10;
    std::uint64_t limit = std::numeric_limits<std::uint64_t>::max(); // objects to list
    Format format = Format::kTable;
    std::vector<std::string> inputs; // none: the objects that are stored already
    std::vector<OMRA_OBJKEY> keys;
};

// The options of a command line; nothing when it only asked for help or the version, which are then
// printed. Throws UsageError, and RunError when they cannot be.
std::optional<Options> parse_options(int argc, char **argv);

} // namespace pmi_cli
