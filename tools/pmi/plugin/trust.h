// Files that nobody but the user and root can have written.
#pragma once

#include <string>

namespace pmi_cli {

// Who else may write the file at `path`, which is absolute and has no symbolic links, or put
// another in its place: what is wrong, where, and what is allowed. Empty when nobody may. Of the
// folders above the file's own, only those that everybody may write are refused.
std::string find_other_writers(const std::string &path);

} // namespace pmi_cli
