// Opening and reading files whose names come from the user: what cannot be read becomes an error
// that names the file. And the one way to standard output.
#include "cli/files.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fmt/format.h>

#include "cli/error.h"

namespace pmi_cli {

namespace {

[[noreturn]] void fail(const std::string &path, int error) {
    throw UsageError(fmt::format("cannot read '{}': {}", path, std::strerror(error)));
}

} // namespace

File open_file(const std::string &path) {
    if (path == "-") {
        return File(stdin);
    }
    File file(std::fopen(path.c_str(), "rbe"));
    if (!file) {
        fail(path, errno);
    }
    return file;
}

void check_read(const File &file, const std::string &path) {
    if (std::ferror(file.get()) != 0) {
        fail(path, errno);
    }
}

std::string read_file(const std::string &path, std::uint64_t max_len, std::string_view what) {
    const auto too_long = [&](std::string_view length) {
        throw UsageError(
            fmt::format("{} '{}' has {} bytes; allowed are {}", what, path, length, max_len));
    };
    std::error_code not_regular;
    const std::uintmax_t size = std::filesystem::file_size(path, not_regular);
    if (!not_regular && size > max_len) {
        too_long(std::to_string(size));
    }
    const File file = open_file(path);
    std::string bytes;
    char buffer[1 << 16];
    errno = 0;
    while (const std::size_t got = std::fread(buffer, 1, sizeof buffer, file.get())) {
        bytes.append(buffer, got);
        if (bytes.size() > max_len) {
            too_long("too many");
        }
    }
    check_read(file, path);
    return bytes;
}

void write_stdout(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
        std::fflush(stdout) != 0) {
        throw RunError(fmt::format("cannot write to standard output: {}", std::strerror(errno)));
    }
}

} // namespace pmi_cli
