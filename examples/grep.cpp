// Grep with counts: how many lines of each object match. The parameters are the pattern: a regular
// expression (ECMAScript) for the function "grep", plain text for "find". Objects without a
// matching line are not in the result.
#include <locale>
#include <regex>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <pmi_table.hpp>

namespace {

enum { kBadRegex = 1, kLineTooLong = 2, kNoPattern = 3 };

// The library's matcher recurses once a character, so a line must fit a thread's stack.
constexpr std::size_t kMaxRegexLine = 8192;

struct Regex {
    std::regex regex;

    explicit Regex(std::string_view params) {
        try {
            regex.assign(params.begin(), params.end(),
                         std::regex::ECMAScript | std::regex::optimize);
        } catch (const std::regex_error &) {
            throw pmi::Failure(kBadRegex);
        }
    }
    bool matches(std::string_view line) const {
        if (line.size() > kMaxRegexLine) {
            throw pmi::Failure(kLineTooLong);
        }
        return std::regex_search(line.begin(), line.end(), regex);
    }
};

// The library's regular expressions fill a table of the locale on first use, and without a lock. So
// it is filled while the program still has one thread.
void prepare_regex() {
    const auto &characters = std::use_facet<std::ctype<char>>(std::locale());
    for (int c = 1; c < 256; ++c) {
        characters.narrow(static_cast<char>(c), '\0');
    }
}

struct Text {
    std::string text;

    explicit Text(std::string_view params) : text(params) {}
    bool matches(std::string_view line) const { return line.find(text) != line.npos; }
};

// The row's key is the object's key: only the program knows the object's name.
template <class Pattern>
std::optional<std::string> count_lines(const pmi::Object &object) {
    if (object.params.empty()) {
        throw pmi::Failure(kNoPattern);
    }
    const auto &pattern = pmi::parsed<Pattern>(object.params);
    std::uint64_t count = 0;
    for (std::string_view rest = object.data; !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        count += pattern.matches(line) ? 1 : 0;
    }
    if (count == 0) {
        return std::nullopt;
    }
    const OMRA_OBJKEY key = object.key();
    std::string table;
    pmi::append_row(table, {reinterpret_cast<const char *>(&key), sizeof key}, count);
    return table;
}

std::string add(std::string_view into, std::string_view from) {
    return pmi::merge_tables<std::uint64_t>(into, from, std::plus<>());
}

std::string print(const pmi::Result &result) {
    nlohmann::json json = nlohmann::json::array();
    std::string table;
    for (pmi::TableCursor<std::uint64_t> row(result.data()); row; row.next()) {
        OMRA_OBJKEY key{};
        std::memcpy(&key, row.key().data(), std::min(row.key().size(), sizeof key));
        json.push_back({{"object", result.object_name(key)}, {"lines", row.value()}});
        table += fmt::format("{}:{}\n", result.object_name(key), row.value());
    }
    return result.json() ? json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                         : table;
}

const char *code_text(int code) {
    switch (code) {
    case kBadRegex:
        return "the parameters are not a valid regular expression";
    case kLineTooLong:
        return "a line is too long for regular expressions (8192 bytes)";
    case kNoPattern:
        return "there is no pattern: give one with --params";
    default:
        return nullptr;
    }
}

} // namespace

PMI_PLUGIN(plugin) {
    prepare_regex();
    plugin.eval<count_lines<Regex>>(0, "grep", "Counts the lines that match a regular expression");
    plugin.eval<count_lines<Text>>(1, "find", "Counts the lines that contain a text");
    plugin.merge<add>(2, "add", "Puts the counts of all objects together");
    plugin.printer<print>();
    plugin.code_text(code_text);
}
