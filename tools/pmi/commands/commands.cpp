// Each command opens the store, does one thing, and says what it did.
#include "commands/commands.h"

#include <chrono>
#include <limits>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/error.h"
#include "cli/files.h"
#include "cli/keys.h"
#include "pmicli.h"
#include "store/loading.h"
#include "store/names.h"
#include "store/store.h"

namespace pmi_cli {

namespace {

constexpr std::size_t kOutputBytes = std::size_t{1} << 16; // written at a time

// Says what became of an object that a command could not do its work on.
int report(const OMRA_OBJKEY &key, int status, std::string_view hint = "") {
    const char *text = Omrapmi_status_text(status);
    fmt::print(stderr, "pmi: {}: {}{}\n", key_text(key), text == nullptr ? "no text" : text, hint);
    return kExitObjectsFailed;
}

unsigned int app_id_or_all(const Options &options) {
    return options.app_id.value_or(OMRALIB_ALL_APP_IDS);
}

std::string json_text(const std::string &text) {
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string listed(const OMRA_OBJKEY &key, const std::string *name, bool as_json) {
    std::string line = key_text(key);
    if (as_json) {
        line = fmt::format(R"(  {{"key": "{}")", line);
        return line + (name == nullptr ? "" : ", \"name\": " + json_text(*name)) + "}";
    }
    return line + (name == nullptr ? "" : "\t" + *name);
}

} // namespace

int load_command(const Options &options) {
    configure_store(options);
    const StoreHandle handle;
    Names names(handle, true);
    const unsigned int app_id = options.app_id.value_or(kAppId);
    const auto start = std::chrono::steady_clock::now();
    const std::uint64_t num_loaded = load_input(handle, names, options, app_id, 0);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    fmt::print(stderr, "pmi: loaded {} objects of app id {} in {:.3f} s\n", num_loaded, app_id,
               elapsed.count());
    return kExitSuccess;
}

int list_command(const Options &options) {
    configure_store(options);
    const StoreHandle handle;
    Names names(handle, true);
    const bool as_json = options.format == Format::kJson;
    std::string text = as_json ? "[" : "";
    const char *end = as_json ? "\n" : "";
    for (const OMRA_OBJKEY &key :
         find_keys(handle, app_id_or_all(options), options.query.value_or(""), options.limit)) {
        text += end + listed(key, names.find(key), as_json);
        end = as_json ? ",\n" : "\n";
        if (text.size() >= kOutputBytes) {
            write_stdout(text);
            text.clear();
        }
    }
    write_stdout(text + (as_json ? "\n]\n" : end));
    return kExitSuccess;
}

int count_command(const Options &options) {
    configure_store(options);
    const StoreHandle handle;
    write_stdout(fmt::format(
        "{}\n", count_objects(handle, app_id_or_all(options), options.query.value_or(""))));
    return kExitSuccess;
}

int get_command(const Options &options) {
    configure_store(options);
    const StoreHandle handle;
    const OMRA_OBJKEY &key = options.keys.front();
    std::string bytes;
    if (!read_object(handle, key, bytes)) {
        return report(key, OMRALIB_ERR_OBJ_NOT_FOUND);
    }
    write_stdout(bytes);
    return kExitSuccess;
}

int put_command(const Options &options) {
    const std::vector<OMRA_OBJ_INDEX> indexes = make_indexes(options);
    const OMRA_OBJKEY &key = options.keys.front();
    const std::string bytes = read_file(options.inputs.empty() ? "-" : options.inputs.front(),
                                        std::numeric_limits<unsigned int>::max(), "the object");
    configure_store(options);
    const StoreHandle handle;
    const auto put = [&](auto operation) {
        return operation(handle.get(), bytes.data(), static_cast<unsigned int>(bytes.size()),
                         options.timeout_m, indexes.data(),
                         static_cast<unsigned int>(indexes.size()), key);
    };
    int status = put(Omralib_store_indexed_obj);
    if (status == OMRALIB_ERR_OBJ_EXISTS && options.replace) {
        status = put(Omralib_replace_obj);
    }
    switch (status) {
    case OMRALIB_ERR_OBJ_EXISTS:
        return report(key, status, "; --replace replaces it");
    case OMRALIB_ERR_OBJ_LOCKED:
    case OMRALIB_ERR_OBJ_NOT_FOUND: // removed before it was replaced
        return report(key, status);
    default:
        check_status(status, fmt::format("{} cannot be stored", key_text(key)));
        return kExitSuccess;
    }
}

int remove_command(const Options &options) {
    configure_store(options);
    const StoreHandle handle;
    const std::vector<OMRA_OBJKEY> keys =
        options.query ? find_keys(handle, *options.app_id, *options.query) : options.keys;
    const std::vector<int> statuses = remove_objects(handle, keys);
    int exit_code = kExitSuccess;
    std::vector<OMRA_OBJKEY> removed;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (statuses[i] == OMRALIB_RET_SUCCESS) {
            removed.push_back(keys[i]);
        } else if (!options.query || statuses[i] != OMRALIB_ERR_OBJ_NOT_FOUND) {
            exit_code = report(keys[i], statuses[i]);
        }
    }
    Names(handle, true).forget(removed);
    if (options.query) {
        write_stdout(fmt::format("removed {} objects\n", removed.size()));
    }
    return exit_code;
}

} // namespace pmi_cli
