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
#include "cli/keys.h"
#include "cli/progress.h"
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

void check_query_status(const StoreHandle &handle, int status, const std::string &query,
                        const std::string &what) {
    if (status == OMRALIB_ERR_BAD_QUERY) {
        refuse_query(query, failure_text(handle.get(), status));
    }
    check_status(status, what);
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
    config.engine_url = options.store_url ? options.store_url->c_str() : nullptr;
    config.num_hosts = options.num_hosts;
    config.memory_limit = options.memory_limit;
    const int status = Omralib_configure(&config);
    if (status != OMRALIB_RET_SUCCESS) {
        constexpr std::string_view kUrlMember = "engine_url";
        std::string why = failure_text(OMRALIB_NULL_HANDLE, status);
        if (why.starts_with(kUrlMember)) {
            why.replace(0, kUrlMember.size(), "--store"); // as the user has called it
        }
        throw UsageError(fmt::format("the store cannot be set up: {}", why));
    }
}

StoreHandle::StoreHandle() : handle_(Omralib_open_ext(nullptr)) {
    if (handle_ == OMRALIB_NULL_HANDLE) {
        // The store's own text says that it cannot be opened, and which one.
        const std::string why = failure_text(OMRALIB_NULL_HANDLE, OMRALIB_ERR_CANT_INIT);
        throw RunError(
            fmt::format("the store {}{}", why.starts_with('"') ? "" : "cannot be opened: ", why));
    }
}

StoreHandle::~StoreHandle() {
    Omralib_close(handle_);
}

std::string explain_query(const StoreHandle &handle, unsigned int app_id,
                          const std::string &query) {
    // A line for each term of a query is longer than the term, but a query has 64 KiB at most.
    std::string text(std::size_t{4} << 20, '\0');
    const int status = Omralib_explain_query(handle.get(), app_id, query.data(),
                                             static_cast<unsigned int>(query.size()), text.data(),
                                             static_cast<unsigned int>(text.size()));
    check_query_status(handle, status, query, "the query cannot be explained");
    text.resize(std::strlen(text.c_str()));
    return text;
}

std::vector<OMRA_OBJKEY> find_keys(const StoreHandle &handle, unsigned int app_id,
                                   const std::string &query, std::uint64_t limit) {
    struct Found {
        std::vector<OMRA_OBJKEY> keys;
        std::uint64_t limit;
    } found{{}, limit};
    const auto take = [](const OMRA_OBJKEY *pkey, void *pfound) {
        auto &[keys, most] = *static_cast<Found *>(pfound);
        const bool is_enough = keys.size() >= most;
        if (!is_enough) {
            keys.push_back(*pkey);
        }
        return is_enough ? 1 : 0;
    };
    const int status = Omralib_find_objs(handle.get(), app_id, query.data(),
                                         static_cast<unsigned int>(query.size()), take, &found);
    check_query_status(handle, status, query, "the objects cannot be listed");
    return std::move(found.keys);
}

std::uint64_t count_objects(const StoreHandle &handle, unsigned int app_id,
                            const std::string &query) {
    if (!query.empty()) {
        return find_keys(handle, app_id, query).size();
    }
    ULONGLONG count = 0;
    check_status(Omralib_count_objs(handle.get(), app_id, &count), "the objects cannot be counted");
    return count;
}

bool read_object(const StoreHandle &handle, const OMRA_OBJKEY &key, std::string &bytes_out) {
    unsigned int len = 0;
    int status = Omralib_read_obj(handle.get(), 0, &len, key);
    if (status == OMRALIB_ERR_OBJ_NOT_FOUND) {
        return false;
    }
    bytes_out.assign(len, '\0');
    if (status == OMRALIB_RET_SUCCESS && len != 0) {
        status = Omralib_get_read_data(handle.get(), bytes_out.data(), len);
    }
    check_status(status, fmt::format("{} cannot be read", key_text(key)));
    return true;
}

std::vector<int> remove_objects(const StoreHandle &handle, const std::vector<OMRA_OBJKEY> &keys) {
    std::vector<int> statuses(keys.size(), OMRALIB_ERR_UNKNOWN);
    ProgressLine progress;
    for (std::size_t begin = 0; begin < keys.size(); begin += kBatch) {
        const std::size_t count = std::min(kBatch, keys.size() - begin);
        // The statuses say it all.
        Omralib_remove_objs(handle.get(), &keys[begin], static_cast<unsigned int>(count),
                            &statuses[begin]);
        const std::size_t done = begin + count;
        const std::string text = fmt::format("removed {} of {} objects", done, keys.size());
        if (done < keys.size()) {
            progress.draw(text, done);
        } else if (begin != 0) {
            progress.finish(text, done);
        }
    }
    return statuses;
}

} // namespace pmi_cli
