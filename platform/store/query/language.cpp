/* The parser of the query language: a grammar, what a matched rule does, and what is said when one
 * does not match.
 *
 *   grammar   rules that never go back over more than one token, so that the place where a needed
 *             rule fails is the place of the error
 *   take()    of a rule: what it adds to the Reader once it has matched
 *   wanted()  of a rule: what to say was expected when it is needed and does not match; a rule with
 *             a fail() of its own says more
 *
 * The Reader holds what has been read so far; finished conditions wait on a stack until the rule
 * around them takes them together. */
#include "query/language.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

#include <tao/pegtl.hpp>

namespace store {

namespace {

namespace pegtl = tao::pegtl;

constexpr std::size_t max_query_bytes = 65536;
constexpr std::size_t max_depth = 64;
constexpr std::size_t max_quoted_bytes = 40; /* of the query, in an error text */
constexpr std::size_t max_sample_decimals = 7;

/* Errors -------------------------------------------------------------------------------------- */

/* `offset` counts the bytes from 0. */
class QueryError : public std::runtime_error {
public:
    QueryError(std::size_t offset, const std::string &what)
        : std::runtime_error("at " + std::to_string(offset + 1) + ": " + what) {}
};

/* 'token', cut between characters when it is long. */
std::string quoted(std::string_view token) {
    std::string text(token.substr(0, max_quoted_bytes));
    if (text.size() < token.size()) {
        while ((static_cast<unsigned char>(token[text.size()]) & 0xC0) == 0x80) {
            text.pop_back();
        }
        text += "...";
    }
    return '\'' + text + '\'';
}

/* What has been read -------------------------------------------------------------------------- */

/* A piece of the query that a rule has matched. */
struct Piece {
    std::string_view text;
    std::size_t offset;
};

struct Literal {
    bool is_string;
    IndexValue value;
    std::size_t num_bytes; /* of a string */
};

enum class Operator { equal, not_equal, less, less_equal, greater, greater_equal };

struct Reader {
    std::string_view last; /* token */
    std::size_t depth = 0;
    std::size_t string_offset = 0; /* where the last string began */

    /* The comparison being read. */
    Condition comparison;
    Operator op{};
    std::vector<Literal> literals;

    /* Finished conditions, and where among them those of each open and-list and or-list begin. */
    std::vector<Condition> finished;
    std::vector<std::size_t> open_lists;

    bool has_limit = false;
    bool has_sample = false;
    std::uint32_t sample = whole_sample;
    std::uint64_t limit = UINT64_MAX;

    bool is_index() const { return comparison.field == Condition::Field::index; }

    [[noreturn]] void fail_after_last(std::size_t offset, std::string_view wanted) const {
        throw QueryError(offset, "expected " + std::string(wanted) +
                                     (last.empty() ? "" : " after " + quoted(last)));
    }

    void deepen(std::size_t offset) {
        if (++depth > max_depth) {
            throw QueryError(offset, "brackets and 'not' are nested more than " +
                                         std::to_string(max_depth) + " deep");
        }
    }

    void open_list() { open_lists.push_back(finished.size()); }

    /* Makes one condition of those of the innermost list. */
    void close_list(Condition::Kind kind) {
        const auto first = finished.begin() + static_cast<std::ptrdiff_t>(open_lists.back());
        open_lists.pop_back();
        if (finished.end() - first == 1) {
            return;
        }
        Condition list;
        list.kind = kind;
        list.parts.assign(std::make_move_iterator(first), std::make_move_iterator(finished.end()));
        finished.erase(first, finished.end());
        finished.push_back(std::move(list));
    }
};

/* Values -------------------------------------------------------------------------------------- */

constexpr IndexValue lowest_value{};
constexpr IndexValue highest_value{{~0ull, ~0ull, ~0ull, ~0ull}};

/* False when the result has more than 256 bits. */
bool multiply_and_add(IndexValue &value, std::uint32_t factor, std::uint32_t summand) {
    std::uint64_t carry = summand;
    for (ULONGLONG &word : value.u64_comp) {
        const std::uint64_t low = (word & 0xFFFFFFFF) * factor + carry;
        const std::uint64_t high = (word >> 32) * factor + (low >> 32);
        word = high << 32 | (low & 0xFFFFFFFF);
        carry = high >> 32;
    }
    return carry == 0;
}

std::uint32_t digit_value(char digit) {
    if (digit <= '9') {
        return static_cast<std::uint32_t>(digit - '0');
    }
    return static_cast<std::uint32_t>((digit | 0x20) - 'a' + 10);
}

IndexValue number_of(std::string_view digits, std::uint32_t base, std::size_t offset) {
    IndexValue value{};
    for (const char digit : digits) {
        if (!multiply_and_add(value, base, digit_value(digit))) {
            throw QueryError(offset, "the number is larger than 2^256 - 1");
        }
    }
    return value;
}

bool fits_64_bits(const IndexValue &value) {
    return (value.u64_comp[1] | value.u64_comp[2] | value.u64_comp[3]) == 0;
}

/* The bytes of a string literal between its quotes; its escapes are known to be valid. */
std::string unescaped(std::string_view text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            bytes += text[i];
            continue;
        }
        const char escape = text[++i];
        if (escape == 'x') {
            bytes += static_cast<char>(digit_value(text[i + 1]) << 4 | digit_value(text[i + 2]));
            i += 2;
        } else {
            bytes += escape == 'n' ? '\n' : escape == 't' ? '\t' : escape;
        }
    }
    return bytes;
}

/* The value before or after this one; it is not the first or the last. */
IndexValue neighbour(IndexValue value, ValueOrder order, int step) {
    const auto bytes = reinterpret_cast<unsigned char *>(&value);
    constexpr std::size_t num_bytes = sizeof value;
    for (std::size_t i = 0; i < num_bytes; ++i) {
        unsigned char &byte = bytes[order == ValueOrder::number ? i : num_bytes - 1 - i];
        byte = static_cast<unsigned char>(byte + step);
        if (byte != (step > 0 ? 0x00 : 0xFF)) {
            break; /* nothing to carry */
        }
    }
    return value;
}

/* Comparisons --------------------------------------------------------------------------------- */

void add_range(Condition &comparison, const IndexValue &low, const IndexValue &high) {
    if (compare(low, high, comparison.order) <= 0) {
        comparison.ranges.push_back({low, high});
    }
}

void add_below(Condition &comparison, const IndexValue &value) {
    if (compare(value, lowest_value, comparison.order) != 0) {
        add_range(comparison, lowest_value, neighbour(value, comparison.order, -1));
    }
}

void add_above(Condition &comparison, const IndexValue &value) {
    if (compare(value, highest_value, comparison.order) != 0) {
        add_range(comparison, neighbour(value, comparison.order, 1), highest_value);
    }
}

void compare_with(Condition &comparison, Operator op, const IndexValue &value) {
    switch (op) {
    case Operator::equal:
    case Operator::not_equal:
        add_range(comparison, value, value);
        comparison.negated = op == Operator::not_equal;
        break;
    case Operator::less:
        add_below(comparison, value);
        break;
    case Operator::less_equal:
        add_range(comparison, lowest_value, value);
        break;
    case Operator::greater:
        add_above(comparison, value);
        break;
    case Operator::greater_equal:
        add_range(comparison, value, highest_value);
        break;
    }
}

/* Grammar: words ------------------------------------------------------------------------------ */

struct Blank : pegtl::star<pegtl::one<' ', '\t', '\r', '\n'>> {};
using WordEnd = pegtl::not_at<pegtl::sor<pegtl::alnum, pegtl::one<'_', '.'>>>;

/* Marks the rules that an error text may name as what stands before the error. */
struct Token {};

/* A token and the blanks behind it. */
template <typename Rule>
struct maybe : pegtl::seq<Rule, Blank> {};
template <typename Rule>
struct need : pegtl::seq<pegtl::must<Rule>, Blank> {};

struct And : Token, pegtl::seq<TAO_PEGTL_ISTRING("and"), WordEnd> {
    static std::string wanted(const Reader &) { return "'and'"; }
};
struct Or : Token, pegtl::seq<TAO_PEGTL_ISTRING("or"), WordEnd> {};
struct Not : Token, pegtl::seq<TAO_PEGTL_ISTRING("not"), WordEnd> {
    static void take(const Piece &piece, Reader &reader) { reader.deepen(piece.offset); }
};
struct Between : Token, pegtl::seq<TAO_PEGTL_ISTRING("between"), WordEnd> {};
struct In : Token, pegtl::seq<TAO_PEGTL_ISTRING("in"), WordEnd> {};
struct Starts : Token, pegtl::seq<TAO_PEGTL_ISTRING("starts"), WordEnd> {
    static void take(const Piece &piece, Reader &reader) {
        if (!reader.is_index()) {
            throw QueryError(piece.offset,
                             "'starts with' needs an index, not " + quoted(reader.last));
        }
    }
};
struct With : Token, pegtl::seq<TAO_PEGTL_ISTRING("with"), WordEnd> {
    static std::string wanted(const Reader &) { return "'with'"; }
};
struct Limit : Token, pegtl::seq<TAO_PEGTL_ISTRING("limit"), WordEnd> {
    static void take(const Piece &piece, Reader &reader) {
        if (reader.has_limit) {
            throw QueryError(piece.offset, "there is a second 'limit'");
        }
        reader.has_limit = true;
    }
};
struct Sample : Token, pegtl::seq<TAO_PEGTL_ISTRING("sample"), WordEnd> {
    static void take(const Piece &piece, Reader &reader) {
        if (reader.has_sample) {
            throw QueryError(piece.offset, "there is a second 'sample'");
        }
        reader.has_sample = true;
    }
};

struct Comma : Token, pegtl::one<','> {};
struct OpenList : Token, pegtl::one<'('> {
    static std::string wanted(const Reader &) { return "'('"; }
};
struct CloseList : Token, pegtl::one<')'> {
    static std::string wanted(const Reader &) { return "',' or ')'"; }
};
struct OpenBracket : Token, pegtl::one<'('> {
    static void take(const Piece &piece, Reader &reader) { reader.deepen(piece.offset); }
};
struct CloseBracket : Token, pegtl::one<')'> {
    static void take(const Piece &, Reader &reader) { --reader.depth; }
    static std::string wanted(const Reader &) { return "'and', 'or' or ')'"; }
};

/* Grammar: literals --------------------------------------------------------------------------- */

struct Hexadecimal
    : Token,
      pegtl::seq<pegtl::one<'0'>, pegtl::one<'x', 'X'>, pegtl::plus<pegtl::xdigit>, WordEnd> {
    static void take(const Piece &piece, Reader &reader) {
        const IndexValue value = number_of(piece.text.substr(2), 16, piece.offset);
        reader.literals.push_back({false, value, 0});
    }
};
struct Decimal : Token, pegtl::seq<pegtl::plus<pegtl::digit>, WordEnd> {
    static void take(const Piece &piece, Reader &reader) {
        const IndexValue value = number_of(piece.text, 10, piece.offset);
        reader.literals.push_back({false, value, 0});
    }
};
struct Number : pegtl::sor<Hexadecimal, Decimal> {};

struct EscapeName : pegtl::sor<pegtl::one<'"', '\\', 'n', 't'>,
                               pegtl::seq<pegtl::one<'x'>, pegtl::xdigit, pegtl::xdigit>> {
    static std::string wanted(const Reader &) {
        return "'\"', '\\', 'n', 't' or 'x' and two hexadecimal digits";
    }
};
struct Backslash : Token, pegtl::one<'\\'> {};
struct OpenQuote : pegtl::one<'"'> {
    static void take(const Piece &piece, Reader &reader) { reader.string_offset = piece.offset; }
};
struct CloseQuote : pegtl::one<'"'> {
    [[noreturn]] static void fail(const Reader &reader) {
        throw QueryError(reader.string_offset, "the string has no closing '\"'");
    }
};
struct String : Token,
                pegtl::seq<OpenQuote,
                           pegtl::star<pegtl::sor<pegtl::seq<Backslash, pegtl::must<EscapeName>>,
                                                  pegtl::not_one<'"', '\\'>>>,
                           pegtl::must<CloseQuote>> {
    static void take(const Piece &piece, Reader &reader) {
        const std::string bytes = unescaped(piece.text.substr(1, piece.text.size() - 2));
        Literal literal{true, {}, bytes.size()};
        if (bytes.size() > sizeof literal.value) {
            throw QueryError(piece.offset, "the string has " + std::to_string(bytes.size()) +
                                               " bytes; at most 32 are allowed");
        }
        std::memcpy(&literal.value, bytes.data(), bytes.size());
        reader.literals.push_back(literal);
    }
    static std::string wanted(const Reader &) { return "a string"; }
};

/* Whether a comparison can go on with a string, or with a number. */
bool string_is_possible(const Reader &reader) {
    return reader.is_index() && (reader.literals.empty() || reader.literals.back().is_string);
}
bool number_is_possible(const Reader &reader) {
    return reader.literals.empty() || !reader.literals.back().is_string;
}

/* A number or a string, as the field allows; all of a comparison are of one kind. */
struct LiteralRule {
    using rule_t = LiteralRule;
    using subs_t = pegtl::type_list<Number, String>;

    template <pegtl::apply_mode A, pegtl::rewind_mode M, template <typename...> class Action,
              template <typename...> class Control, typename Input>
    static bool match(Input &in, Reader &reader) {
        const bool is_string = !in.empty() && in.peek_char() == '"';
        if (is_string) {
            return string_is_possible(reader) &&
                   Control<String>::template match<A, M, Action, Control>(in, reader);
        }
        return number_is_possible(reader) &&
               Control<Number>::template match<A, M, Action, Control>(in, reader);
    }
    static std::string wanted(const Reader &reader) {
        if (!string_is_possible(reader)) {
            return "a number";
        }
        return number_is_possible(reader) ? "a number or a string" : "a string";
    }
};

/* Grammar: comparisons ------------------------------------------------------------------------ */

struct IndexName : Token, pegtl::seq<TAO_PEGTL_ISTRING("index"), pegtl::range<'0', '7'>, WordEnd> {
    static void take(const Piece &piece, Reader &reader) {
        reader.comparison = {};
        reader.comparison.field = Condition::Field::index;
        reader.comparison.index = static_cast<std::uint16_t>(piece.text.back() - '0');
    }
};
struct SizeName : Token, pegtl::seq<TAO_PEGTL_ISTRING("size"), WordEnd> {
    static void take(const Piece &, Reader &reader) {
        reader.comparison = {};
        reader.comparison.field = Condition::Field::size;
    }
};
struct AgeName : Token, pegtl::seq<TAO_PEGTL_ISTRING("age"), WordEnd> {
    static void take(const Piece &, Reader &reader) {
        reader.comparison = {};
        reader.comparison.field = Condition::Field::age;
    }
};
struct FieldName : pegtl::sor<IndexName, SizeName, AgeName> {
    /* The literals of the comparison before are no longer needed. */
    static void take(const Piece &, Reader &reader) {
        reader.literals.clear();
        reader.comparison.kind = Condition::Kind::comparison;
    }
};

template <Operator its_op>
struct Sign {
    static void take(const Piece &, Reader &reader) { reader.op = its_op; }
};
struct NotEqual : Token, Sign<Operator::not_equal>, pegtl::string<'!', '='> {};
struct LessEqual : Token, Sign<Operator::less_equal>, pegtl::string<'<', '='> {};
struct GreaterEqual : Token, Sign<Operator::greater_equal>, pegtl::string<'>', '='> {};
struct Equal : Token, Sign<Operator::equal>, pegtl::one<'='> {};
struct Less : Token, Sign<Operator::less>, pegtl::one<'<'> {};
struct Greater : Token, Sign<Operator::greater>, pegtl::one<'>'> {};
struct AnySign : pegtl::sor<NotEqual, LessEqual, GreaterEqual, Equal, Less, Greater> {};

/* The order that the first literal decides. */
void decide_order(Reader &reader) {
    reader.comparison.order =
        reader.literals.front().is_string ? ValueOrder::bytes : ValueOrder::number;
}

struct WithSign : pegtl::seq<maybe<AnySign>, need<LiteralRule>> {
    static void take(const Piece &, Reader &reader) {
        decide_order(reader);
        compare_with(reader.comparison, reader.op, reader.literals.front().value);
    }
};
struct WithBetween : pegtl::seq<maybe<Between>, need<LiteralRule>, need<And>, need<LiteralRule>> {
    static void take(const Piece &, Reader &reader) {
        decide_order(reader);
        add_range(reader.comparison, reader.literals[0].value, reader.literals[1].value);
    }
};
struct WithIn : pegtl::seq<maybe<In>, need<OpenList>, need<LiteralRule>,
                           pegtl::star<maybe<Comma>, need<LiteralRule>>, need<CloseList>> {
    static void take(const Piece &, Reader &reader) {
        decide_order(reader);
        for (const Literal &literal : reader.literals) {
            add_range(reader.comparison, literal.value, literal.value);
        }
        arrange_ranges(reader.comparison);
    }
};
struct WithStart : pegtl::seq<maybe<Starts>, need<With>, need<String>> {
    static void take(const Piece &, Reader &reader) {
        const Literal &literal = reader.literals.front();
        decide_order(reader);
        IndexValue last = literal.value;
        std::memset(reinterpret_cast<char *>(&last) + literal.num_bytes, 0xFF,
                    sizeof last - literal.num_bytes);
        add_range(reader.comparison, literal.value, last);
    }
};
struct Relation : pegtl::sor<WithSign, WithBetween, WithIn, WithStart> {
    static std::string wanted(const Reader &reader) {
        return std::string("=, !=, <, <=, >, >=, 'between'") +
               (reader.is_index() ? ", 'in' or 'starts with'" : " or 'in'");
    }
};
struct Comparison : pegtl::seq<maybe<FieldName>, pegtl::must<Relation>> {
    static void take(const Piece &piece, Reader &reader) {
        const std::size_t length = piece.text.find_last_not_of(" \t\r\n") + 1;
        reader.comparison.text = piece.text.substr(0, length);
        reader.finished.push_back(std::move(reader.comparison));
    }
};

/* Grammar: conditions ------------------------------------------------------------------------- */

struct AnyList;
struct Unary;

struct Negation : pegtl::seq<maybe<Not>, pegtl::must<Unary>> {
    static void take(const Piece &, Reader &reader) {
        --reader.depth;
        reader.finished.back() = negation_of(std::move(reader.finished.back()));
    }
};
struct Bracketed : pegtl::seq<maybe<OpenBracket>, pegtl::must<AnyList>, need<CloseBracket>> {};
struct Unary : pegtl::sor<Comparison, Negation, Bracketed> {
    static std::string wanted(const Reader &) {
        return "index0 to index7, size, age, 'not' or '('";
    }
};

struct ListBegin : pegtl::success {
    static void take(const Piece &, Reader &reader) { reader.open_list(); }
};
struct AllList
    : pegtl::seq<ListBegin, pegtl::must<Unary>, pegtl::star<maybe<And>, pegtl::must<Unary>>> {
    static void take(const Piece &, Reader &reader) { reader.close_list(Condition::Kind::all_of); }
};
struct AnyList : pegtl::seq<ListBegin, AllList, pegtl::star<maybe<Or>, AllList>> {
    static void take(const Piece &, Reader &reader) { reader.close_list(Condition::Kind::any_of); }
    static std::string wanted(const Reader &reader) { return Unary::wanted(reader); }
};

/* Grammar: queries ---------------------------------------------------------------------------- */

struct LimitCount : Token, pegtl::seq<pegtl::plus<pegtl::digit>, WordEnd> {
    static void take(const Piece &piece, Reader &reader) {
        const IndexValue value = number_of(piece.text, 10, piece.offset);
        if (!fits_64_bits(value)) {
            throw QueryError(piece.offset, "the limit is larger than 2^64 - 1");
        }
        reader.limit = value.u64_comp[0];
    }
    static std::string wanted(const Reader &) { return "a whole number"; }
};
struct Percentage : Token,
                    pegtl::seq<pegtl::plus<pegtl::digit>,
                               pegtl::opt<pegtl::one<'.'>, pegtl::plus<pegtl::digit>>, WordEnd> {
    static void take(const Piece &piece, Reader &reader) {
        const std::size_t point = std::min(piece.text.find('.'), piece.text.size());
        std::string decimals(piece.text.substr(std::min(point + 1, piece.text.size())));
        if (decimals.size() > max_sample_decimals) {
            throw QueryError(piece.offset, "a percentage has at most 7 decimals");
        }
        decimals.resize(max_sample_decimals, '0');
        const IndexValue value =
            number_of(std::string(piece.text.substr(0, point)) + decimals, 10, piece.offset);
        if (!fits_64_bits(value) || value.u64_comp[0] > whole_sample) {
            throw QueryError(piece.offset, "a sample is 0% to 100%");
        }
        reader.sample = static_cast<std::uint32_t>(value.u64_comp[0]);
    }
    static std::string wanted(const Reader &) { return "a percentage"; }
};
struct PercentSign : Token, pegtl::one<'%'> {
    static std::string wanted(const Reader &) { return "'%'"; }
};

struct End : pegtl::eof {
    static std::string wanted(const Reader &reader) {
        if (reader.has_limit && reader.has_sample) {
            return "the end";
        }
        const std::string condition = reader.has_limit || reader.has_sample ? "" : "'and', 'or', ";
        return condition + (reader.has_limit    ? "'sample' or the end"
                            : reader.has_sample ? "'limit' or the end"
                                                : "'limit', 'sample' or the end");
    }
};
struct LimitClause : pegtl::seq<maybe<Limit>, need<LimitCount>> {};
struct SampleClause : pegtl::seq<maybe<Sample>, need<Percentage>, need<PercentSign>> {};
struct Clause : pegtl::sor<LimitClause, SampleClause> {};

struct NoCondition : pegtl::at<pegtl::sor<Limit, Sample>> {};
struct Query
    : pegtl::seq<Blank, pegtl::sor<NoCondition, AnyList>, pegtl::star<Clause>, pegtl::must<End>> {};

/* Actions and errors -------------------------------------------------------------------------- */

template <typename Rule>
constexpr bool is_token = std::is_base_of_v<Token, Rule>;

template <typename Rule>
constexpr bool takes = requires(const Piece &piece, Reader &reader) {
    Rule::take(piece, reader);
};

template <typename Rule>
struct Action : pegtl::nothing<Rule> {};

template <typename Rule>
requires(is_token<Rule> || takes<Rule>) struct Action<Rule> {
    template <typename Input>
    static void apply(const Input &in, Reader &reader) {
        const Piece piece{in.string_view(), in.position().byte};
        if constexpr (takes<Rule>) {
            Rule::take(piece, reader);
        }
        if constexpr (is_token<Rule>) {
            reader.last = piece.text;
        }
    }
};

template <typename Rule>
struct Control : pegtl::normal<Rule> {
    template <typename Input>
    [[noreturn]] static void raise(const Input &in, const Reader &reader) {
        if constexpr (requires { Rule::fail(reader); }) {
            Rule::fail(reader);
        } else {
            reader.fail_after_last(in.position().byte, Rule::wanted(reader));
        }
    }
};

/* What the grammar relies on: text that is neither empty nor too long nor ill-formed. */
void check_text(std::string_view query) {
    if (query.size() > max_query_bytes) {
        throw QueryError(max_query_bytes, "the query is longer than 65536 bytes");
    }
    pegtl::memory_input in(query.data(), query.size(), "");
    pegtl::parse<pegtl::star<pegtl::utf8::not_one<0>>>(in);
    if (!in.empty()) {
        throw QueryError(in.position().byte, in.peek_char() == '\0'
                                                 ? "a NUL byte is not allowed"
                                                 : "the bytes are not valid UTF-8");
    }
    if (query.find_first_not_of(" \t\r\n") == std::string_view::npos) {
        throw QueryError(0, "the query is empty");
    }
}

} // namespace

Status parse_query(std::string_view query, Selection &selection_out, std::string &error_out) {
    Reader reader;
    try {
        check_text(query);
        pegtl::memory_input in(query.data(), query.size(), "");
        pegtl::parse<Query, Action, Control>(in, reader);
    } catch (const QueryError &error) {
        error_out = error.what();
        return OMRALIB_ERR_BAD_QUERY;
    }
    selection_out.where = reader.finished.empty() ? Condition{} : std::move(reader.finished.back());
    selection_out.sample = reader.sample;
    selection_out.limit = reader.limit;
    return OMRALIB_RET_SUCCESS;
}

} // namespace store
