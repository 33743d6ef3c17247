// Loading a plug-in: find and check the file -> dlopen -> pmi_plugin_register -> check what it
// registered.
//
// A plug-in is code that runs with the user's rights. So it is found by the path that the user gave
// and never searched for, and one that others may write or exchange is refused (trust.h).
#include "plugin/plugin.h"

#include <filesystem>
#include <string_view>

#include <dlfcn.h>
#include <fmt/format.h>

#include "cli/error.h"
#include "plugin/trust.h"

namespace pmi_cli {

namespace {

constexpr const char *kRegisterName = "pmi_plugin_register";

[[noreturn]] void fail(const std::string &path, std::string_view what) {
    throw UsageError(fmt::format("plug-in '{}': {}", path, what));
}

// Without a slash the loader would search its own directories, and a file that happens to lie in
// the working directory is not what a bare name asks for.
void check_is_path(const std::string &path) {
    if (path.find('/') == std::string::npos) {
        fail(path, fmt::format("a plug-in is given by its path; one in the working directory is "
                               "'./{}'",
                               path));
    }
}

// Where the file is, without symbolic links: what is checked is what is loaded.
std::string find_file(const std::string &path) {
    std::error_code error;
    const std::filesystem::path found = std::filesystem::canonical(path, error);
    if (error) {
        fail(path, error.message());
    }
    if (!std::filesystem::is_regular_file(found, error)) {
        fail(path, "not a regular file");
    }
    const std::string writers = find_other_writers(found.string());
    if (!writers.empty()) {
        fail(path, writers);
    }
    return found.string();
}

// What went wrong during the registration is kept here: nothing may be thrown through the plug-in.
struct Registration {
    Plugin plugin;
    std::string error;
};

Registration &registration(PMI_REGISTRAR *preg) {
    return *static_cast<Registration *>(preg->pprogram);
}

void check_function(Registration &reg, const Function &added) {
    const auto complain = [&reg](const std::string &what) {
        reg.error = reg.error.empty() ? what : reg.error;
    };
    if (added.name.empty()) {
        complain(fmt::format("the function with id {} has no name", added.id));
    }
    if (added.id >= OMRAPMI_NUM_FUNC_IDS) {
        complain(fmt::format("function '{}' has id {}; allowed are 0 to 63", added.name, added.id));
    }
    if (added.eval == nullptr && added.merge == nullptr) {
        complain(fmt::format("function '{}' is NULL", added.name));
    }
    for (const Function &earlier : reg.plugin.functions) {
        if (earlier.id == added.id) {
            complain(fmt::format("functions '{}' and '{}' have the same id {}", earlier.name,
                                 added.name, added.id));
        }
        if (earlier.name == added.name) {
            complain(fmt::format("functions {} and {} have the same name '{}'", earlier.id,
                                 added.id, added.name));
        }
    }
}

void add(PMI_REGISTRAR *preg, Function function) {
    Registration &reg = registration(preg);
    check_function(reg, function);
    reg.plugin.functions.push_back(std::move(function));
}

std::string text(const char *ptext) {
    return ptext == nullptr ? "" : ptext;
}

PMI_REGISTRAR make_registrar(Registration &reg) {
    PMI_REGISTRAR registrar{};
    registrar.abi_version = PMI_PLUGIN_ABI;
    registrar.pprogram = &reg;
    registrar.add_eval = [](PMI_REGISTRAR *preg, unsigned int id, const char *name,
                            const char *description, OMRAPMI_EVAL_FUNCP func) {
        add(preg, {id, OMRAPMI_FUNC_EVAL, text(name), text(description), func, nullptr});
    };
    registrar.add_invoke_once = [](PMI_REGISTRAR *preg, unsigned int id, const char *name,
                                   const char *description, OMRAPMI_EVAL_FUNCP func) {
        add(preg,
            {id, OMRAPMI_FUNC_INVOKE_ONCE_EVAL, text(name), text(description), func, nullptr});
    };
    registrar.add_merge = [](PMI_REGISTRAR *preg, unsigned int id, const char *name,
                             const char *description, OMRAPMI_MERGE_FUNCP func) {
        add(preg, {id, OMRAPMI_FUNC_MERGE, text(name), text(description), nullptr, func});
    };
    registrar.set_printer = [](PMI_REGISTRAR *preg, PMI_PRINT_FUNCP func) {
        registration(preg).plugin.print = func;
    };
    registrar.set_code_text = [](PMI_REGISTRAR *preg, PMI_CODE_TEXT_FUNCP func) {
        registration(preg).plugin.code_text = func;
    };
    return registrar;
}

template <class IsKind>
const Function &find(const Plugin &plugin, const std::string &name, const char *kind,
                     IsKind is_kind) {
    std::string known;
    for (const Function &function : plugin.functions) {
        if (!is_kind(function)) {
            continue;
        }
        if (name.empty() || function.name == name) {
            return function;
        }
        known += (known.empty() ? "" : ", ") + function.name;
    }
    if (known.empty()) {
        fail(plugin.path, fmt::format("it has no {} function", kind));
    }
    fail(plugin.path, fmt::format("it has no {} function '{}'; it has {}", kind, name, known));
}

} // namespace

const char *kind_name(OMRAPMI_FUNC_TYPE kind) {
    switch (kind) {
    case OMRAPMI_FUNC_MERGE:
        return "merge";
    case OMRAPMI_FUNC_EVAL:
        return "eval";
    default:
        return "invoke-once";
    }
}

const Function &Plugin::find_eval(const std::string &name) const {
    return find(*this, name, "eval", [](const Function &f) { return f.eval != nullptr; });
}

const Function &Plugin::find_merge(const std::string &name) const {
    return find(*this, name, "merge", [](const Function &f) { return f.merge != nullptr; });
}

Plugin load_plugin(const std::string &path) {
    check_is_path(path);
    void *library = dlopen(find_file(path).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        fail(path, fmt::format("cannot be loaded: {}", dlerror()));
    }
    const auto register_functions =
        reinterpret_cast<int (*)(PMI_REGISTRAR *)>(dlsym(library, kRegisterName));
    if (register_functions == nullptr) {
        fail(path, fmt::format("not a plug-in: it does not export {}", kRegisterName));
    }
    Registration reg;
    reg.plugin.path = path;
    PMI_REGISTRAR registrar = make_registrar(reg);
    const int version = register_functions(&registrar);
    if (version != static_cast<int>(PMI_PLUGIN_ABI)) {
        fail(path, fmt::format("made for version {} of the plug-in interface; this program has {}",
                               version, PMI_PLUGIN_ABI));
    }
    if (!reg.error.empty()) {
        fail(path, reg.error);
    }
    if (reg.plugin.functions.empty()) {
        fail(path, "it registers no function");
    }
    return std::move(reg.plugin);
}

} // namespace pmi_cli
