// Statistics of records: count, sum, minimum, maximum and mean of a numeric field, by the value of
// another field. A record is an object of "Field: value" lines.
//
// The parameters name the fields: "value=Installed-Size by=Section"; without by= there is one
// group, "(all)". Records without the numeric field do not count; those without the other are the
// group "(none)". A number has up to 18 digits before the point and up to 6 after it. Sums are
// exact, in millionths, so they depend neither on the order of the records nor on that of the
// merges; means are cut off after six digits.
#include <cstdlib>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <pmi_table.hpp>

namespace {

enum { kBadParams = 1, kNotANumber = 2, kOutOfRange = 3 };

__extension__ using Decimal = __int128; // in millionths
constexpr Decimal kUnit = 1'000'000;

struct Statistics {
    Decimal sum;
    Decimal min;
    Decimal max;
    std::uint64_t count;
    std::uint64_t reserved; // 0; leaves no padding
};

struct Fields {
    std::string value;
    std::string by;

    explicit Fields(std::string_view params) {
        while (!params.empty()) {
            const std::string_view word = params.substr(0, params.find(' '));
            params.remove_prefix(std::min(word.size() + 1, params.size()));
            if (word.starts_with("value=")) {
                value = word.substr(6);
            } else if (word.starts_with("by=")) {
                by = word.substr(3);
            } else if (!word.empty()) {
                throw pmi::Failure(kBadParams);
            }
        }
        if (value.empty()) {
            throw pmi::Failure(kBadParams);
        }
    }
};

std::optional<std::string_view> find_field(std::string_view record, std::string_view name) {
    while (!record.empty()) {
        std::string_view line = record.substr(0, record.find('\n'));
        record.remove_prefix(std::min(line.size() + 1, record.size()));
        if (line.starts_with(name) && line.substr(name.size()).starts_with(':')) {
            line.remove_prefix(
                std::min(line.find_first_not_of(" \t", name.size() + 1), line.size()));
            return line.substr(0, line.find_last_not_of(" \t\r") + 1);
        }
    }
    return std::nullopt;
}

Decimal parse_decimal(std::string_view text) {
    const bool negative = text.starts_with('-');
    text.remove_prefix(negative ? 1 : 0);
    const std::string_view whole = text.substr(0, text.find('.'));
    const std::string_view fraction = text.substr(std::min(whole.size() + 1, text.size()));
    constexpr std::string_view digits = "0123456789";
    if (whole.empty() || whole.find_first_not_of(digits) != whole.npos ||
        fraction.find_first_not_of(digits) != fraction.npos ||
        (whole.size() < text.size() && fraction.empty())) {
        throw pmi::Failure(kNotANumber);
    }
    if (whole.size() > 18 || fraction.size() > 6) {
        throw pmi::Failure(kOutOfRange);
    }
    Decimal number = 0;
    for (const char digit : fmt::format("{}{:0<6}", whole, fraction)) {
        number = number * 10 + (digit - '0');
    }
    return negative ? -number : number;
}

std::string print_decimal(Decimal number) {
    const Decimal magnitude = number < 0 ? -number : number;
    std::string text = fmt::format("{}{}.{:06}", number < 0 ? "-" : "", magnitude / kUnit,
                                   static_cast<std::uint64_t>(magnitude % kUnit));
    text.erase(text.find_last_not_of('0') + 1);
    return text.ends_with('.') ? text.substr(0, text.size() - 1) : text;
}

std::optional<std::string> evaluate(const pmi::Object &object) {
    const auto &fields = pmi::parsed<Fields>(object.params);
    const auto text = find_field(object.data, fields.value);
    if (!text) {
        return std::nullopt;
    }
    const Decimal value = parse_decimal(*text);
    const std::string_view group =
        fields.by.empty() ? "(all)" : find_field(object.data, fields.by).value_or("(none)");
    std::string table;
    pmi::append_row(table, group, Statistics{value, value, value, 1, 0});
    return table;
}

std::string join(std::string_view into, std::string_view from) {
    return pmi::merge_tables<Statistics>(into, from, [](const Statistics &a, const Statistics &b) {
        return Statistics{a.sum + b.sum, std::min(a.min, b.min), std::max(a.max, b.max),
                          a.count + b.count, 0};
    });
}

using Json = nlohmann::ordered_json;

// A group as JSON begins it. JSON is UTF-8: of a name that is not, what is wrong is replaced, and
// its bytes are given as well, so that each group can be told from the others.
Json name_group(std::string_view name) {
    Json json{{"group", name}};
    const auto dump = [&json](Json::error_handler_t handler) {
        return json.dump(-1, ' ', false, handler);
    };
    if (dump(Json::error_handler_t::replace) != dump(Json::error_handler_t::ignore)) {
        std::string hex;
        for (const char byte : name) {
            hex += fmt::format("{:02x}", static_cast<unsigned char>(byte));
        }
        json["group_hex"] = hex;
    }
    return json;
}

std::string print(const pmi::Result &result) {
    Json json = Json::array();
    std::string table = fmt::format("{:<28} {:>8} {:>18} {:>12} {:>12} {:>18}\n", "group", "count",
                                    "sum", "min", "max", "mean");
    for (pmi::TableCursor<Statistics> row(result.data()); row; row.next()) {
        const Statistics all = row.value();
        const std::string sum = print_decimal(all.sum);
        const std::string min = print_decimal(all.min);
        const std::string max = print_decimal(all.max);
        const std::string mean = print_decimal(all.sum / static_cast<Decimal>(all.count));
        // Decimals are strings in JSON: a reader's binary numbers would lose digits.
        Json group = name_group(row.key());
        group.update(
            {{"count", all.count}, {"sum", sum}, {"min", min}, {"max", max}, {"mean", mean}});
        json.push_back(std::move(group));
        table += fmt::format("{:<28} {:>8} {:>18} {:>12} {:>12} {:>18}\n", row.key(), all.count,
                             sum, min, max, mean);
    }
    return result.json() ? json.dump(-1, ' ', false, Json::error_handler_t::replace) : table;
}

const char *code_text(int code) {
    switch (code) {
    case kBadParams:
        return "the parameters are not of the form 'value=Field by=Field'";
    case kNotANumber:
        return "the field's value is not a decimal number";
    case kOutOfRange:
        return "the number has more than 18 digits before or 6 after the point";
    default:
        return nullptr;
    }
}

} // namespace

PMI_PLUGIN(plugin) {
    plugin.eval<evaluate>(0, "statistics", "Reads a record's number and its group");
    plugin.merge<join>(1, "join", "Joins the statistics of equal groups");
    plugin.printer<print>();
    plugin.code_text(code_text);
}
