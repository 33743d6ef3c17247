// Files read, and standard output written, with the errors that users need.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace pmi_cli {

struct FileCloser {
    void operator()(std::FILE *file) const {
        if (file != stdin) {
            std::fclose(file);
        }
    }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Opens a file for reading; "-" is standard input. Throws UsageError.
File open_file(const std::string &path);

// Throws UsageError when reading `file` stopped because of an error.
void check_read(const File &file, const std::string &path);

// The bytes of a file. Throws UsageError when it cannot be read or has more than `max_len` bytes; a
// regular file that is too long is refused before it is read. `what` says in messages what it is.
std::string read_file(const std::string &path, std::uint64_t max_len, std::string_view what);

// Writes to standard output at once; nothing else in the program writes there. Throws RunError when
// it cannot be written.
void write_stdout(std::string_view text);

} // namespace pmi_cli
