// The command line of pmi, with its index and file arguments, and the file that is cut into
// objects: what is refused is refused with one of the program's own errors.
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include <unistd.h>

#include "cli/error.h"
#include "cli/options.h"
#include "fuzz.h"
#include "store/objects.h"
#include "store/store.h"

namespace {

using fuzz::check;

std::string &folder = *new std::string; // holds the one file that inputs are read from

// The words that command lines are made of; what stands for a file exists. No other file is named,
// so that no file of the system is read.
std::string draw_argument(FuzzedDataProvider &data) {
    static constexpr const char *words[] = {"--index",
                                            "--index-from",
                                            "--split",
                                            "lines",
                                            "paragraphs",
                                            "--any",
                                            "--query",
                                            "--params",
                                            "--eval",
                                            "--merge",
                                            "--threads",
                                            "--timeout",
                                            "--hosts",
                                            "--lose-host",
                                            "--json",
                                            "--raw",
                                            "--exceptions",
                                            "--memory-limit",
                                            "--stats",
                                            "--help",
                                            "--version",
                                            "--",
                                            "-",
                                            "0=Name",
                                            "1=5",
                                            "7=",
                                            "1@50%",
                                            "size > 1",
                                            "4294967295",
                                            "10G"};
    switch (data.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
        return folder + "/in.txt";
    case 1: {
        std::string text = data.ConsumeRandomLengthString(40);
        text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
        return text;
    }
    default:
        return data.PickValueInArray(words);
    }
}

std::vector<std::string> draw_command_line(FuzzedDataProvider &data) {
    std::vector<std::string> arguments = {"pmi"};
    if (data.ConsumeBool()) {
        arguments.insert(arguments.end(), {"run", "plugin"});
    } else {
        arguments.emplace_back(data.ConsumeBool() ? "explain" : "functions");
    }
    const int number = data.ConsumeIntegralInRange<int>(0, 12);
    for (int i = 0; i < number; ++i) {
        arguments.push_back(draw_argument(data));
    }
    if (data.ConsumeBool()) {
        arguments.insert(arguments.end(), {"--params-file", folder + "/in.txt"});
    }
    return arguments;
}

void write_file(const std::string &content) {
    std::FILE *file = std::fopen((folder + "/in.txt").c_str(), "wb");
    check(file != nullptr, "no file");
    std::fwrite(content.data(), 1, content.size(), file);
    std::fclose(file);
}

std::optional<pmi_cli::Options> parse(std::vector<std::string> arguments) {
    std::vector<char *> argv;
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    return pmi_cli::parse_options(static_cast<int>(arguments.size()), argv.data());
}

// Options that a command line could have given, for files that are cut without reading one.
pmi_cli::Options draw_options(FuzzedDataProvider &data) {
    pmi_cli::Options options;
    options.inputs = {folder + "/in.txt"};
    options.split = data.PickValueInArray(
        {pmi_cli::Split::kNone, pmi_cli::Split::kLines, pmi_cli::Split::kParagraphs});
    const auto draw = [&data](std::vector<pmi_cli::IndexText> &texts) {
        const unsigned int number = data.ConsumeIntegralInRange<unsigned int>(0, 3);
        for (unsigned int i = 0; i < number; ++i) {
            texts.push_back({2 * i, data.ConsumeRandomLengthString(40), "an argument"});
        }
    };
    if (options.split == pmi_cli::Split::kParagraphs) {
        draw(options.fields);
    }
    draw(options.terms);
    return options;
}

void remove_all(OMRALIB_HANDLE hdl) {
    std::vector<OMRA_OBJKEY> keys;
    const auto note = [](const OMRA_OBJKEY *pkey, void *pkeys) {
        static_cast<std::vector<OMRA_OBJKEY> *>(pkeys)->push_back(*pkey);
        return 0;
    };
    Omralib_list_objs(hdl, pmi_cli::kAppId, note, &keys);
    for (const OMRA_OBJKEY &key : keys) {
        Omralib_remove_obj(hdl, 0, key);
    }
}

void load(pmi_cli::Options options) {
    for (std::string &input : options.inputs) {
        input = folder + "/in.txt"; // wherever the argument points
    }
    static const pmi_cli::StoreHandle handle;
    ULONGLONG num_stored = 0;
    try {
        const OMRAPMI_QUERY_SPEC query = pmi_cli::make_query(options);
        check(query.num_index_specs == options.terms.size(), "a lost --index");
        const pmi_cli::Objects objects = pmi_cli::load_objects(handle, options);
        Omralib_count_objs(handle.get(), pmi_cli::kAppId, &num_stored);
        check(num_stored == objects.size(), "a lost object");
        if (options.query) {
            pmi_cli::explain_query(handle, *options.query);
        }
    } catch (...) {
        remove_all(handle.get());
        throw;
    }
    remove_all(handle.get());
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
    std::string name = (std::filesystem::temp_directory_path() / "pmi_fuzz_XXXXXX").string();
    check(mkdtemp(name.data()) != nullptr, "no folder");
    folder = name;
    std::atexit([] { std::filesystem::remove_all(folder); });
    std::cout.rdbuf(nullptr); // of --help and --version
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *pdata, std::size_t size) {
    FuzzedDataProvider data(pdata, size);
    const bool is_parsed = data.ConsumeIntegralInRange<int>(0, 3) != 3; // parsing takes long
    try {
        if (!is_parsed) {
            const pmi_cli::Options options = draw_options(data);
            write_file(data.ConsumeRemainingBytesAsString());
            load(options);
            return 0;
        }
        const std::vector<std::string> arguments = draw_command_line(data);
        write_file(data.ConsumeRemainingBytesAsString());
        if (const auto options = parse(arguments)) {
            check(!options->terms.empty() || !options->any, "--any without an index");
            load(*options);
        }
    } catch (const pmi_cli::UsageError &error) {
        check(*error.what() != '\0', "an error without a text");
    } catch (const pmi_cli::RunError &error) {
        check(*error.what() != '\0', "an error without a text");
    }
    return 0;
}
