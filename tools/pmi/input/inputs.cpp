// Cutting the input: directories into files, files into lines or paragraphs or left whole. Only one
// piece is in memory at a time.
#include "input/inputs.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <vector>

#include <fmt/format.h>

#include "cli/error.h"
#include "cli/files.h"

namespace pmi_cli {

namespace {

namespace fs = std::filesystem;
using Take = std::function<void(const Piece &)>;

constexpr std::string_view kBlanks = " \t\r\n";

bool is_blank(std::string_view line) {
    return line.find_first_not_of(kBlanks) == line.npos;
}

// The lines of a file, each with its newline, read one at a time.
class LineReader {
public:
    explicit LineReader(const std::string &path) : path_(path), file_(open_file(path)) {}
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;
    ~LineReader() { std::free(line_); }

    bool next() {
        errno = 0;
        len_ = getline(&line_, &capacity_, file_.get());
        if (len_ < 0) {
            check_read(file_, path_);
            return false;
        }
        ++number_;
        return true;
    }
    std::string_view line() const { return {line_, static_cast<std::size_t>(len_)}; }
    std::uint64_t number() const { return number_; } // of the line, from 1 on

private:
    const std::string &path_;
    File file_;
    char *line_ = nullptr;
    std::size_t capacity_ = 0;
    ssize_t len_ = 0;
    std::uint64_t number_ = 0;
};

Piece cut_piece(const std::string &path, std::uint64_t line, std::string_view bytes) {
    return {fmt::format("{}:{}", path, line), bytes, false, {}};
}

// Every line that is not empty, without its line end.
void read_lines(const std::string &path, const Take &take) {
    LineReader reader(path);
    while (reader.next()) {
        std::string_view line = reader.line();
        line = line.substr(0, line.find_last_not_of("\r\n") + 1);
        if (!line.empty()) {
            take(cut_piece(path, reader.number(), line));
        }
    }
}

// Every run of lines between blank ones.
void read_paragraphs(const std::string &path, const Take &take) {
    LineReader reader(path);
    std::string paragraph;
    std::uint64_t first_line = 0;
    const auto finish = [&] {
        if (!paragraph.empty()) {
            take(cut_piece(path, first_line, paragraph));
            paragraph.clear();
        }
    };
    while (reader.next()) {
        if (is_blank(reader.line())) {
            finish();
            continue;
        }
        first_line = paragraph.empty() ? reader.number() : first_line;
        paragraph += reader.line();
    }
    finish();
}

void read_whole(const std::string &path, const Take &take) {
    const std::string bytes =
        read_file(path, std::numeric_limits<unsigned int>::max(), "the object");
    const std::string extension = fs::path(path).extension().string();
    take({path, bytes, true, std::string_view(extension).substr(extension.empty() ? 0 : 1)});
}

void read_one(const std::string &path, Split split, const Take &take) {
    switch (split) {
    case Split::kNone:
        return read_whole(path, take);
    case Split::kParagraphs:
        return read_paragraphs(path, take);
    case Split::kLines:
        return read_lines(path, take);
    }
}

std::vector<std::string> list_directory(const std::string &directory) {
    std::vector<std::string> paths;
    std::error_code error;
    fs::recursive_directory_iterator entry(directory, error);
    while (!error && entry != fs::recursive_directory_iterator()) {
        if (fs::is_regular_file(entry->symlink_status())) {
            paths.push_back(entry->path().string());
        }
        entry.increment(error);
    }
    if (error) {
        throw UsageError(fmt::format("cannot read the directory '{}' or one below it: {}",
                                     directory, error.message()));
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

} // namespace

void read_input(const std::string &input, Split split, const Take &take) {
    std::size_t num_bytes = 0;
    const auto count_and_take = [&](const Piece &piece) {
        num_bytes += piece.bytes.size();
        take(piece);
    };
    std::error_code ignored; // reading it reports what is wrong
    if (input != "-" && fs::is_directory(input, ignored)) {
        for (const std::string &path : list_directory(input)) {
            read_one(path, split, count_and_take);
        }
    } else {
        read_one(input, split, count_and_take);
    }
    if (num_bytes == 0) {
        throw UsageError(fmt::format("the input '{}' is empty", input));
    }
}

std::optional<std::string_view> find_field(std::string_view paragraph, std::string_view name) {
    while (!paragraph.empty()) {
        std::string_view line = paragraph.substr(0, paragraph.find('\n'));
        paragraph.remove_prefix(std::min(line.size() + 1, paragraph.size()));
        if (line.starts_with(name) && line.substr(name.size()).starts_with(':')) {
            line.remove_prefix(name.size() + 1);
            line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
            return line.substr(0, line.find_last_not_of(kBlanks) + 1);
        }
    }
    return std::nullopt;
}

} // namespace pmi_cli
