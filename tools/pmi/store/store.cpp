// The store's calls with errors that users need: a query that is refused is shown with a mark where
// it went wrong, any other failure with the name and the text of its code.
#include "store/store.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>

#include <fmt/format.h>

#include "cli/error.h"
#include "pmicli.h"

namespace pmi_cli {

namespace {

// What the store has to say about its last failure on `handle`, or the words of its status code.
std::string failure_text(OMRALIB_HANDLE handle, int status) {
    std::array<char, 1024> text{};
    if (Omralib_get_error_text(handle, text.data(), text.size()) == OMRALIB_RET_SUCCESS &&
        text.front() != '\0') {
        return text.data();
    }
    const char *known = Omrapmi_status_text(status);
    return known == nullptr ? fmt::format("status {}", status) : known;
}

// The N of "at N: ...", bytes counted from 1; nothing when the text names no place in the query.
std::optional<std::size_t> find_position(std::string_view text, std::string_view query) {
    constexpr std::string_view kAt = "at ";
    if (!text.starts_with(kAt)) {
        return std::nullopt;
    }
    std::size_t position = 0;
    const auto [ptr, error] =
        std::from_chars(text.data() + kAt.size(), text.data() + text.size(), position);
    const bool inside = error == std::errc{} && position >= 1 && position <= query.size() + 1;
    return inside ? std::optional(position) : std::nullopt;
}

bool begins_character(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

// On new lines, the line of the query that holds the position and a mark below that; characters of
// a long line that are far from the position are left out.
std::string point_at(std::string_view query, std::size_t position) {
    constexpr std::size_t kShown = 60;                                 // bytes on each side
    std::size_t begin = query.substr(0, position - 1).rfind('\n') + 1; // npos + 1 is 0
    begin = std::max(begin, position - 1 - std::min(position - 1, kShown));
    while (begin < position - 1 && !begins_character(query[begin])) {
        ++begin;
    }
    std::size_t end = std::min(query.find('\n', position - 1), query.size());
    end = std::min(end, position - 1 + kShown);
    while (end < query.size() && end > position && !begins_character(query[end])) {
        --end;
    }
    std::string line(query.substr(begin, end - begin));
    std::replace(line.begin(), line.end(), '\t', ' ');
    const std::string_view before = query.substr(begin, position - 1 - begin);
    const auto column = std::count_if(before.begin(), before.end(), begins_character);
    return fmt::format("\n  {}\n  {}^", line, std::string(static_cast<std::size_t>(column), ' '));
}

[[noreturn]] void refuse_query(const std::string &query, const std::string &why) {
    const auto position = find_position(why, query);
    throw UsageError(
        fmt::format("query: {}{}", why, position ? point_at(query, *position) : std::string()));
}

} // namespace

void check_status(int status, const std::string &what) {
    if (status != OMRALIB_RET_SUCCESS) {
        const char *name = Omrapmi_status_name(status);
        const char *text = Omrapmi_status_text(status);
        throw RunError(fmt::format("{}: {} ({}): {}", what, name == nullptr ? "unknown code" : name,
                                   status, text == nullptr ? "no text" : text));
    }
}

void configure_store(const Options &options) {
    OMRALIB_CONFIG config{};
    config.num_hosts = options.num_hosts;
    config.memory_limit = options.memory_limit;
    const int status = Omralib_configure(&config);
    if (status != OMRALIB_RET_SUCCESS) {
        throw UsageError(fmt::format("the store cannot be set up: {}",
                                     failure_text(OMRALIB_NULL_HANDLE, status)));
    }
}

StoreHandle::StoreHandle() : handle_(Omralib_open_ext(nullptr)) {
    if (handle_ == OMRALIB_NULL_HANDLE) {
        throw RunError(fmt::format("the store cannot be opened: {}",
                                   failure_text(OMRALIB_NULL_HANDLE, OMRALIB_ERR_CANT_INIT)));
    }
}

StoreHandle::~StoreHandle() {
    Omralib_close(handle_);
}

std::string explain_query(const StoreHandle &handle, const std::string &query) {
    // A line for each term of a query is longer than the term, but a query has 64 KiB at most.
    std::string text(std::size_t{4} << 20, '\0');
    const int status = Omralib_explain_query(handle.get(), kAppId, query.data(),
                                             static_cast<unsigned int>(query.size()), text.data(),
                                             static_cast<unsigned int>(text.size()));
    if (status == OMRALIB_ERR_BAD_QUERY) {
        refuse_query(query, failure_text(handle.get(), status));
    }
    check_status(status, "the query cannot be explained");
    text.resize(std::strlen(text.c_str()));
    return text;
}

} // namespace pmi_cli
