// Loading the pieces of the input in batches under keys made of their numbers, with the indexes
// that
// --index-from names; and turning --index into a query of the module, or an object's indexes.
#include "store/loading.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <optional>

#include <fmt/format.h>

#include "cli/error.h"
#include "cli/interrupt.h"
#include "cli/progress.h"
#include "input/inputs.h"

namespace pmi_cli {

namespace {

// The indexes of a whole file.
constexpr unsigned int kExtensionIndex = 0;
constexpr unsigned int kSizeIndex = 1;

constexpr std::size_t kBatchBytes = std::size_t{8} << 20;

std::vector<OMRA_OBJ_INDEX> indexes_of(const Piece &piece, const std::vector<IndexText> &fields) {
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

std::optional<std::uint64_t> whole_number(const std::string &text) {
    std::uint64_t number = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, error] = std::from_chars(text.data(), end, number);
    return error == std::errc{} && ptr == end ? std::optional(number) : std::nullopt;
}

OMRA_INDEX_VALUE checked_text(const IndexText &term) {
    if (term.text.size() > sizeof(OMRA_INDEX_VALUE)) {
        throw UsageError(fmt::format("--index {}: the value has {} bytes; allowed are up to {}",
                                     term.argument, term.text.size(), sizeof(OMRA_INDEX_VALUE)));
    }
    return text_value(term.text);
}

// The value of one --index option.
OMRA_INDEX_VALUE term_value(const IndexText &term, bool is_size) {
    if (is_size) {
        if (const auto size = whole_number(term.text)) {
            return number_value(*size);
        }
        throw UsageError(fmt::format("--index {}: index 1 of a file is its size; '{}' is not a "
                                     "number of bytes",
                                     term.argument, term.text));
    }
    return checked_text(term);
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

// One load: pieces come in, batches go to the store.
class Loader {
public:
    Loader(const StoreHandle &handle, Names &names, const std::vector<IndexText> &fields,
           unsigned int app_id, unsigned int timeout_m)
        : handle_(handle), names_(names), fields_(fields), app_id_(app_id), timeout_m_(timeout_m) {}

    std::uint64_t num_loaded() const { return stored_.size(); }

    void take(const Piece &piece) {
        if (piece.bytes.size() > std::numeric_limits<unsigned int>::max()) {
            throw UsageError(
                fmt::format("'{}' has 4 GiB or more; an object is smaller", piece.name));
        }
        batch_.push_back({std::string(piece.bytes), indexes_of(piece, fields_)});
        block_.push_back(piece.name);
        ++num_taken_;
        num_bytes_ += piece.bytes.size();
        if (block_.size() == kBatch || num_bytes_ >= kBatchBytes) {
            flush();
        }
    }

    // Stores what has come since the last time, and before it the names.
    void flush() {
        if (batch_.empty()) {
            return;
        }
        const std::uint64_t begin = stored_.size();
        if (load_ == 0) {
            load_ = names_.begin_load(app_id_, block_);
        } else {
            names_.set(app_id_, load_, begin / kBatch * kBatch, block_);
        }
        std::vector<OMRALIB_NEW_OBJ> objects;
        objects.reserve(batch_.size());
        for (const Waiting &one : batch_) {
            objects.push_back({loaded_key(app_id_, load_, begin + objects.size()),
                               one.bytes.empty() ? nullptr : one.bytes.data(),
                               static_cast<unsigned int>(one.bytes.size()), timeout_m_,
                               one.indexes.empty() ? nullptr : one.indexes.data(),
                               static_cast<unsigned int>(one.indexes.size()), OMRALIB_ERR_UNKNOWN});
        }
        Omralib_store_objs(handle_.get(), objects.data(),
                           static_cast<unsigned int>(objects.size()));
        note(objects);
        batch_.clear();
        num_bytes_ = 0;
        if (block_.size() == kBatch) {
            block_.clear();
        }
    }

    // Removes what has been stored; what cannot be is told on standard error.
    void undo() {
        try {
            for (const int status : remove_objects(handle_, stored_)) {
                if (status != OMRALIB_ERR_OBJ_NOT_FOUND) {
                    check_status(status, "they cannot be removed");
                }
            }
            std::vector<OMRA_OBJKEY> named;
            for (std::uint64_t number = 0; number < num_taken_; ++number) {
                named.push_back(loaded_key(app_id_, load_, number));
            }
            names_.forget(named);
        } catch (const RunError &error) {
            fmt::print(stderr, "pmi: loaded objects of app id {} stay: {}\n", app_id_,
                       error.what());
        }
    }

private:
    struct Waiting {
        std::string bytes;
        std::vector<OMRA_OBJ_INDEX> indexes;
    };

    // Throws for the first object that was not stored.
    void note(const std::vector<OMRALIB_NEW_OBJ> &objects) {
        const std::size_t first_name = block_.size() - objects.size();
        std::optional<std::size_t> failed;
        for (std::size_t i = 0; i < objects.size(); ++i) {
            if (objects[i].status_out == OMRALIB_RET_SUCCESS) {
                stored_.push_back(objects[i].key);
            } else if (!failed) {
                failed = i;
            }
        }
        if (failed) {
            check_status(objects[*failed].status_out,
                         fmt::format("'{}' cannot be stored", block_[first_name + *failed]));
        }
    }

    const StoreHandle &handle_;
    Names &names_;
    const std::vector<IndexText> &fields_;
    const unsigned int app_id_;
    const unsigned int timeout_m_;
    std::uint64_t load_ = 0; // 0: nothing has been stored
    std::uint64_t num_taken_ = 0;
    std::vector<Waiting> batch_;
    std::size_t num_bytes_ = 0;      // of the batch
    std::vector<std::string> block_; // the names of the objects that share a block with the batch
    std::vector<OMRA_OBJKEY> stored_;
};

} // namespace

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

std::vector<OMRA_OBJ_INDEX> make_indexes(const Options &options) {
    std::vector<OMRA_OBJ_INDEX> indexes;
    const auto add = [&indexes](const IndexText &given, const OMRA_INDEX_VALUE &value) {
        for (const OMRA_OBJ_INDEX &earlier : indexes) {
            if (earlier.index == given.index) {
                throw UsageError(fmt::format("index {} is given twice", given.index));
            }
        }
        indexes.push_back({static_cast<USHORT>(given.index), {}, value});
    };
    for (const IndexText &term : options.terms) {
        add(term, checked_text(term));
    }
    for (const IndexText &term : options.numbers) {
        const auto number = whole_number(term.text);
        if (!number) {
            throw UsageError(fmt::format("--index-number {}: '{}' is not a number from 0 to {}",
                                         term.argument, term.text,
                                         std::numeric_limits<std::uint64_t>::max()));
        }
        add(term, number_value(*number));
    }
    return indexes;
}

std::uint64_t load_input(const StoreHandle &handle, Names &names, const Options &options,
                         unsigned int app_id, unsigned int timeout_m) {
    Loader loader(handle, names, options.fields, app_id, timeout_m);
    // The store in memory goes with the program: there is nothing to undo.
    std::optional<InterruptNote> interrupt;
    if (options.keeps_objects) {
        interrupt.emplace();
    }
    ProgressLine progress;
    const auto text = [&loader] { return fmt::format("loaded {} objects", loader.num_loaded()); };
    const auto check_interrupt = [&] {
        if (interrupt && interrupt->is_interrupted()) {
            throw Cancelled("cancelled: nothing is loaded");
        }
    };
    try {
        for (const std::string &input : options.inputs) {
            read_input(input, options.split, [&](const Piece &piece) {
                loader.take(piece);
                check_interrupt();
                if (progress.is_due()) {
                    progress.draw(text(), loader.num_loaded());
                }
            });
        }
        loader.flush();
        check_interrupt();
    } catch (const std::exception &) {
        if (options.keeps_objects) {
            loader.undo();
            check_interrupt(); // it may be why the input could not be read
        }
        throw;
    }
    progress.finish(text(), loader.num_loaded());
    return loader.num_loaded();
}

OMRAPMI_QUERY_SPEC make_query(const Options &options) {
    OMRAPMI_QUERY_SPEC query{};
    query.match_all = options.any ? FALSE : TRUE;
    for (const IndexText &term : options.terms) {
        const bool is_input = !options.inputs.empty();
        if (is_input) {
            check_filled(options, term);
        }
        const bool is_size = is_input && options.split == Split::kNone && term.index == kSizeIndex;
        query.index_spec[query.num_index_specs++] = {static_cast<USHORT>(term.index), 0,
                                                     term_value(term, is_size)};
    }
    return query;
}

} // namespace pmi_cli
