/* What the URL of a cluster asks for. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace store {

struct RadosUrl {
    std::string pool;
    std::string name_space;    /* empty: the pool's default one */
    std::string conf;          /* empty: where librados looks by itself */
    std::string user;          /* empty: client.admin */
    std::string keyring;       /* empty: what the configuration file says */
    std::uint32_t buckets = 0; /* 0: as the namespace has it, or the default for a new one */
};

inline constexpr std::uint32_t default_buckets = 64;

/* False, with the reason in `why_out`, when it cannot be understood. */
bool parse_rados_url(std::string_view url, RadosUrl &url_out, std::string &why_out);

} // namespace store
