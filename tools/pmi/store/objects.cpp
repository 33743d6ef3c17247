// Loading the pieces of the input under keys made of their numbers, with the indexes that
// --index-from names, and turning --index into a query of the module.
#include "store/objects.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include <fmt/format.h>

#include "cli/error.h"
#include "cli/progress.h"
#include "pmicli.h"

namespace pmi_cli {

namespace {

// The indexes of a whole file.
constexpr unsigned int kExtensionIndex = 0;
constexpr unsigned int kSizeIndex = 1;

OMRA_OBJKEY make_key(std::uint64_t number) {
    OMRA_OBJKEY key{};
    key.app_id = kAppId;
    for (std::size_t i = 0; i < sizeof number; ++i) {
        key.obj_id.u8_comp[i] = static_cast<UCHAR>(number >> (8 * (sizeof number - 1 - i)));
    }
    return key;
}

// Text from the first byte on, cut after 32 bytes and padded with zeros.
OMRA_INDEX_VALUE text_value(std::string_view text) {
    OMRA_INDEX_VALUE value{};
    if (!text.empty()) {
        std::memcpy(&value, text.data(), std::min(text.size(), sizeof value));
    }
    return value;
}

OMRA_INDEX_VALUE number_value(std::uint64_t number) {
    return {{number, 0, 0, 0}};
}

std::vector<OMRA_OBJ_INDEX> make_indexes(const Piece &piece, const std::vector<IndexText> &fields) {
    std::vector<OMRA_OBJ_INDEX> indexes;
    const auto add = [&indexes](unsigned int index, const OMRA_INDEX_VALUE &value) {
        indexes.push_back({static_cast<USHORT>(index), {}, value});
    };
    if (piece.is_file) {
        add(kExtensionIndex, text_value(piece.extension));
        add(kSizeIndex, number_value(piece.bytes.size()));
    }
    for (const IndexText &field : fields) {
        if (const auto value = find_field(piece.bytes, field.text)) {
            add(field.index, text_value(*value));
        }
    }
    return indexes;
}

// The value of one --index option.
OMRA_INDEX_VALUE term_value(const IndexText &term, bool is_size) {
    if (is_size) {
        std::uint64_t size = 0;
        const char *end = term.text.data() + term.text.size();
        const auto [ptr, error] = std::from_chars(term.text.data(), end, size);
        if (error != std::errc{} || ptr != end) {
            throw UsageError(fmt::format("--index {}: index 1 of a file is its size; '{}' is not a "
                                         "number of bytes",
                                         term.argument, term.text));
        }
        return number_value(size);
    }
    if (term.text.size() > sizeof(OMRA_INDEX_VALUE)) {
        throw UsageError(fmt::format("--index {}: the value has {} bytes; allowed are up to {}",
                                     term.argument, term.text.size(), sizeof(OMRA_INDEX_VALUE)));
    }
    return text_value(term.text);
}

void check_filled(const Options &options, const IndexText &term) {
    if (options.split == Split::kNone) {
        if (term.index > kSizeIndex) {
            throw UsageError(fmt::format("--index {}: a file has the indexes 0 (extension) and 1 "
                                         "(size) only",
                                         term.argument));
        }
        return;
    }
    const bool filled =
        std::any_of(options.fields.begin(), options.fields.end(),
                    [&term](const IndexText &field) { return field.index == term.index; });
    if (!filled) {
        throw UsageError(fmt::format("--index {}: nothing fills index {}; use --split paragraphs "
                                     "--index-from {}=Field",
                                     term.argument, term.index, term.index));
    }
}

} // namespace

void Objects::store(const StoreHandle &handle, const Piece &piece,
                    const std::vector<IndexText> &fields) {
    const std::vector<OMRA_OBJ_INDEX> indexes = make_indexes(piece, fields);
    const int status = Omralib_store_indexed_obj(
        handle.get(), piece.bytes.empty() ? nullptr : piece.bytes.data(),
        static_cast<unsigned int>(piece.bytes.size()), 0,
        indexes.empty() ? nullptr : indexes.data(), static_cast<unsigned int>(indexes.size()),
        make_key(names_.size()));
    check_status(status, fmt::format("'{}' cannot be stored", piece.name));
    names_.push_back(piece.name);
}

std::size_t Objects::number(const OMRA_OBJKEY &key) const {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < sizeof number; ++i) {
        number = number << 8 | key.obj_id.u8_comp[i];
    }
    const bool ours = key.app_id == kAppId || key.app_id == (kAppId | OMRA_APPID_NO_RENEW);
    const bool known = ours && number < names_.size();
    return known ? static_cast<std::size_t>(number) : names_.size();
}

const char *Objects::name(const OMRA_OBJKEY &key) const {
    const std::size_t index = number(key);
    return index < names_.size() ? names_[index].c_str() : nullptr;
}

Objects load_objects(const StoreHandle &handle, const Options &options) {
    Objects objects;
    ProgressLine progress;
    const auto text = [&objects] { return fmt::format("loaded {} objects", objects.size()); };
    for (const std::string &input : options.inputs) {
        read_input(input, options.split, [&](const Piece &piece) {
            if (piece.bytes.size() > std::numeric_limits<unsigned int>::max()) {
                throw UsageError(
                    fmt::format("'{}' has 4 GiB or more; an object is smaller", piece.name));
            }
            objects.store(handle, piece, options.fields);
            if (progress.is_due()) {
                progress.draw(text(), objects.size());
            }
        });
    }
    progress.finish(text(), objects.size());
    return objects;
}

OMRAPMI_QUERY_SPEC make_query(const Options &options) {
    OMRAPMI_QUERY_SPEC query{};
    query.match_all = options.any ? FALSE : TRUE;
    for (const IndexText &term : options.terms) {
        check_filled(options, term);
        const bool is_size = options.split == Split::kNone && term.index == kSizeIndex;
        query.index_spec[query.num_index_specs++] = {static_cast<USHORT>(term.index), 0,
                                                     term_value(term, is_size)};
    }
    return query;
}

} // namespace pmi_cli
