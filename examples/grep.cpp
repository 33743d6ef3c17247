// Grep with counts: how many lines of each object match. The parameters are the pattern: a regular
// expression for the function "grep", plain text for "find". Objects without a matching line are
// not in the result.
//
// Regular expressions are those of RE2, over UTF-8. Matching takes time in proportion to a line's
// length and no stack, whatever the pattern.
#include <memory>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <re2/re2.h>

#include <pmi_table.hpp>

namespace {

enum { kBadRegex = 1, kNoPattern = 2 };

// What is wrong with the pattern, for code_text: that of the first call, as all objects of a run
// have the same one. Any thread may call.
const std::string &first_complaint(const std::string &complaint) {
    static const std::string first =
        fmt::format("the parameters are not a valid regular expression: {}", complaint);
    return first;
}

struct Regex {
    std::unique_ptr<const re2::RE2> regex; // can be moved, as pmi::parsed does

    explicit Regex(std::string_view params)
        : regex(std::make_unique<const re2::RE2>(params, re2::RE2::Quiet)) {
        if (!regex->ok()) {
            first_complaint(regex->error());
            throw pmi::Failure(kBadRegex);
        }
    }
    bool matches(std::string_view line) const { return re2::RE2::PartialMatch(line, *regex); }
};

struct Text {
    std::string text;

    explicit Text(std::string_view params) : text(params) {}
    bool matches(std::string_view line) const { return line.find(text) != line.npos; }
};

// The row's key is the object's key, so that rows are in key order: only the program knows the
// object's name.
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
    const OMRA_OBJKEY key = pmi::sortable(object.key());
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
        const std::string_view name = result.object_name(pmi::sortable(key));
        json.push_back({{"object", name}, {"lines", row.value()}});
        table += fmt::format("{}:{}\n", name, row.value());
    }
    return result.json() ? json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                         : table;
}

const char *code_text(int code) {
    switch (code) {
    case kBadRegex:
        return first_complaint("").c_str();
    case kNoPattern:
        return "there is no pattern: give one with --params";
    default:
        return nullptr;
    }
}

} // namespace

PMI_PLUGIN(plugin) {
    plugin.eval<count_lines<Regex>>(0, "grep",
                                    "Counts the lines that match a regular expression of RE2");
    plugin.eval<count_lines<Text>>(1, "find", "Counts the lines that contain a text");
    plugin.merge<add>(2, "add", "Puts the counts of all objects together");
    plugin.printer<print>();
    plugin.code_text(code_text);
}
