// Files that nobody but the user and root can have written.
#pragma once

#include <string>

namespace pmi_cli {

// Who else may write the file at `path`, which is absolute and has no symbolic links, or put
// another in its place: what is wrong, where, and what is allowed. Empty when nobody may. As long
// as the answer holds, nobody else can change it.
std::string find_other_writers(const std::string &path);

} // namespace pmi_cli
