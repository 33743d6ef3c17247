/* Taking a URL apart. */
#include "rados/url.h"

#include <bit>
#include <charconv>

#include "engine/slots.h"
#include "rados/opening.h"

namespace store {

namespace {

/* What stands in front of `mark` in the rest, which then begins behind it. */
std::string_view take_until(char mark, std::string_view &rest) {
    const std::size_t end = std::min(rest.find(mark), rest.size());
    const std::string_view taken = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return taken;
}

bool take_buckets(std::string_view text, std::uint32_t &buckets, std::string &why) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), buckets);
    if (error == std::errc() && end == text.data() + text.size() && std::has_single_bit(buckets) &&
        buckets <= num_slots) {
        return true;
    }
    why = "buckets is \"" + std::string(text) + "\": a power of two from 1 to " +
          std::to_string(num_slots) + " is allowed";
    return false;
}

bool take_option(std::string_view option, RadosUrl &url, std::string &why) {
    std::string_view value = option;
    const std::string_view name = take_until('=', value);
    if (name == "buckets") {
        return take_buckets(value, url.buckets, why);
    }
    std::string *const setting = name == "conf"      ? &url.conf
                                 : name == "user"    ? &url.user
                                 : name == "keyring" ? &url.keyring
                                                     : nullptr;
    if (setting == nullptr || value.empty()) {
        why = "there is no option \"" + std::string(option) +
              "\": conf=FILE, user=NAME, keyring=FILE and buckets=N are allowed";
        return false;
    }
    *setting = value;
    return true;
}

} // namespace

bool parse_rados_url(std::string_view url, RadosUrl &url_out, std::string &why_out) {
    std::string_view options = url.substr(rados_scheme.size());
    std::string_view place = take_until('?', options);
    RadosUrl result;
    result.pool = take_until('/', place);
    result.name_space = place;
    if (result.pool.empty()) {
        why_out = "a pool has to be named: rados:POOL[/NAMESPACE][?OPTION=VALUE&...]";
        return false;
    }
    while (!options.empty()) {
        if (!take_option(take_until('&', options), result, why_out)) {
            return false;
        }
    }
    url_out = std::move(result);
    return true;
}

bool rados_understands(std::string_view url, std::string &why_out) {
    RadosUrl parsed;
    return parse_rados_url(url, parsed, why_out);
}

} // namespace store
