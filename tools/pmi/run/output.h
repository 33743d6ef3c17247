// What the program prints: the result on standard output, the account of the run beside it.
#pragma once

#include "cli/options.h"
#include "plugin/plugin.h"
#include "run/run.h"
#include "store/objects.h"

namespace pmi_cli {

// Prints the functions of a plug-in. Throws RunError when standard output cannot be written.
void print_functions(const Plugin &plugin, Format format);

// Prints the merged result: through the plug-in's printer, or its bytes when that offers nothing.
// With Format::kJson counts, exceptions and figures are part of the document; otherwise they go to
// standard error. Throws RunError when standard output cannot be written.
void print_outcome(const Outcome &outcome, const Plugin &plugin, Objects &objects,
                   const Options &options, double load_seconds);

} // namespace pmi_cli
