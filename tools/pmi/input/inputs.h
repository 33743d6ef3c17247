// The user's input cut into pieces, each of which becomes an object.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "cli/options.h"

namespace pmi_cli {

struct Piece {
    std::string name; // a file's path, or "path:line" for what was cut from it
    std::string_view bytes;
    bool is_file;               // a whole file
    std::string_view extension; // of a whole file, without the dot
};

// Reads `input`, a file, a directory or "-", and calls `take` with its pieces, in the same order in
// every run: a directory's regular files in the order of their paths, symbolic links left out.
// Throws UsageError when something cannot be read or when there is no piece at all.
void read_input(const std::string &input, Split split,
                const std::function<void(const Piece &)> &take);

// The value of a paragraph's first line "`name`: value" without the blanks around it; nothing when
// there is no such line.
std::optional<std::string_view> find_field(std::string_view paragraph, std::string_view name);

} // namespace pmi_cli
