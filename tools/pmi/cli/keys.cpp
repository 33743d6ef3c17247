// Writing keys and reading them back.
#include "cli/keys.h"

#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>
#include <tuple>

#include <fmt/format.h>

#include "cli/error.h"
#include "storlib.h"

namespace pmi_cli {

namespace {

constexpr unsigned int kLastOrdinaryAppId = 0x0FFFFFFF;

std::string id_text(const OMRA_OBJID &id) {
    return id.u64_comp[1] == 0 ? std::to_string(id.u64_comp[0])
                               : fmt::format("{}.{}", id.u64_comp[0], id.u64_comp[1]);
}

// Reads a key from left to right.
class KeyReader {
public:
    explicit KeyReader(const std::string &text) : text_(text), rest_(text) {}

    bool accept(char mark) {
        const bool is_there = rest_.starts_with(mark);
        rest_.remove_prefix(is_there ? 1 : 0);
        return is_there;
    }
    void expect(char mark) {
        if (!accept(mark)) {
            fail();
        }
    }
    template <typename Number>
    Number number(Number max = std::numeric_limits<Number>::max()) {
        const bool is_hex = rest_.starts_with("0x");
        rest_.remove_prefix(is_hex ? 2 : 0);
        Number value = 0;
        const char *end = rest_.data() + rest_.size();
        const auto [ptr, error] = std::from_chars(rest_.data(), end, value, is_hex ? 16 : 10);
        if (error == std::errc::invalid_argument) {
            fail();
        }
        if (error != std::errc{} || value > max) {
            throw UsageError(fmt::format("the key '{}': {} is too large; up to {} is allowed there",
                                         text_, std::string_view(rest_.data(), ptr), max));
        }
        rest_.remove_prefix(static_cast<std::size_t>(ptr - rest_.data()));
        return value;
    }
    OMRA_OBJID id() {
        OMRA_OBJID id{};
        id.u64_comp[0] = number<ULONGLONG>();
        id.u64_comp[1] = accept('.') ? number<ULONGLONG>() : 0;
        return id;
    }
    void expect_end() {
        if (!rest_.empty()) {
            fail();
        }
    }

private:
    [[noreturn]] void fail() const {
        throw UsageError(fmt::format("'{}' is no key; keys are APP_ID:ID or APP_ID:ID:ID, such as "
                                     "1:42, as 'pmi ls' prints them",
                                     text_));
    }

    const std::string &text_;
    std::string_view rest_;
};

auto fields(const OMRA_OBJKEY &key) {
    const OMRA_OBJID &ext = key.ext_obj_id;
    const OMRA_OBJID &id = key.obj_id;
    return std::tuple(key.app_id, key.flags, key.type_index, key.reserved, ext.u64_comp[0],
                      ext.u64_comp[1], id.u64_comp[0], id.u64_comp[1]);
}

} // namespace

std::strong_ordering key_order(const OMRA_OBJKEY &a, const OMRA_OBJKEY &b) {
    return fields(a) <=> fields(b);
}

std::string key_text(const OMRA_OBJKEY &key) {
    std::string text = std::to_string(key.app_id & ~OMRA_APPID_NO_RENEW);
    if (key.flags != 0 || key.type_index != 0 || key.reserved != 0) {
        text += fmt::format("/{}.{}.{}", key.flags, key.type_index, key.reserved);
    }
    if (key.ext_obj_id.u64_comp[0] != 0 || key.ext_obj_id.u64_comp[1] != 0) {
        text += ':' + id_text(key.ext_obj_id);
    }
    return text + ':' + id_text(key.obj_id);
}

OMRA_OBJKEY parse_key(const std::string &text) {
    KeyReader reader(text);
    OMRA_OBJKEY key{};
    key.app_id = reader.number<ULONG>(kLastOrdinaryAppId);
    if (reader.accept('/')) {
        key.flags = reader.number<UCHAR>();
        reader.expect('.');
        key.type_index = reader.number<UCHAR>();
        reader.expect('.');
        key.reserved = reader.number<USHORT>();
    }
    reader.expect(':');
    key.obj_id = reader.id();
    if (reader.accept(':')) {
        key.ext_obj_id = key.obj_id;
        key.obj_id = reader.id();
    }
    reader.expect_end();
    if (OMRA_OBJKEY_IS_NULL(key)) {
        throw UsageError(fmt::format("the key '{}': no object can have it", text));
    }
    return key;
}

} // namespace pmi_cli
