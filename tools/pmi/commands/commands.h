// The commands about objects that stay in a store: loading, listing and counting them, and one at a
// time. Every command returns an exit code; all throw UsageError and RunError.
#pragma once

#include "cli/options.h"

namespace pmi_cli {

int load_command(const Options &options);
int list_command(const Options &options);
int count_command(const Options &options);
int get_command(const Options &options);
int put_command(const Options &options);
int remove_command(const Options &options);

} // namespace pmi_cli
