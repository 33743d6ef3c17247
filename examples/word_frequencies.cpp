// Word frequencies: how often each word occurs in all objects together.
//
// A word is a run of letters, digits, underscores and bytes beyond ASCII; upper case counts as
// lower case. The result holds every word, so it is exact; the parameters say how many of the most
// frequent ones to print (20 without parameters). Words of equal frequency are printed in byte
// order.
#include <charconv>
#include <unordered_map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <pmi_table.hpp>

namespace {

enum { kBadTopK = 1 };

struct TopK {
    std::size_t k = 20;

    explicit TopK(std::string_view params) {
        if (params.empty()) {
            return;
        }
        const char *end = params.data() + params.size();
        const auto [ptr, error] = std::from_chars(params.data(), end, k);
        if (error != std::errc{} || ptr != end) {
            throw pmi::Failure(kBadTopK);
        }
    }
};

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool in_word(char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || (c & 0x80) != 0;
}

std::string count_words(const pmi::Object &object) {
    pmi::parsed<TopK>(object.params); // a bad parameter fails here and not after all the work
    std::unordered_map<std::string, std::uint64_t> counts;
    std::string word;
    for (const char raw : object.data) {
        const char c = lower(raw);
        if (in_word(c)) {
            word += c;
        } else if (!word.empty()) {
            ++counts[word];
            word.clear();
        }
    }
    if (!word.empty()) {
        ++counts[word];
    }
    return pmi::encode_table(counts);
}

std::string add_counts(std::string_view into, std::string_view from) {
    return pmi::merge_tables<std::uint64_t>(into, from, std::plus<>());
}

std::string print(const pmi::Result &result) {
    std::vector<std::pair<std::string_view, std::uint64_t>> words;
    for (pmi::TableCursor<std::uint64_t> row(result.data()); row; row.next()) {
        words.emplace_back(row.key(), row.value());
    }
    const std::size_t k = std::min(TopK(result.params()).k, words.size());
    std::partial_sort(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(k), words.end(),
                      [](const auto &a, const auto &b) {
                          return a.second != b.second ? a.second > b.second : a.first < b.first;
                      });
    nlohmann::json json = {{"distinct_words", words.size()}, {"top", nlohmann::json::array()}};
    std::string table = fmt::format("{:>12}  word ({} distinct)\n", "count", words.size());
    for (const auto &[word, count] : std::span(words).first(k)) {
        json["top"].push_back({{"word", word}, {"count", count}});
        table += fmt::format("{:>12}  {}\n", count, word);
    }
    return result.json() ? json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                         : table;
}

const char *code_text(int code) {
    return code == kBadTopK ? "the parameters are not a number of words to print" : nullptr;
}

} // namespace

PMI_PLUGIN(plugin) {
    plugin.eval<count_words>(0, "words", "Counts the words of an object");
    plugin.merge<add_counts>(1, "add", "Adds word counts");
    plugin.printer<print>();
    plugin.code_text(code_text);
}
