// A loaded plug-in and its functions.
#pragma once

#include <string>
#include <vector>

#include "pmi_plugin.h"

namespace pmi_cli {

struct Function {
    unsigned int id;
    OMRAPMI_FUNC_TYPE kind;
    std::string name;
    std::string description;
    OMRAPMI_EVAL_FUNCP eval;   // NULL for a merge function
    OMRAPMI_MERGE_FUNCP merge; // NULL for the others
};

const char *kind_name(OMRAPMI_FUNC_TYPE kind);

struct Plugin {
    std::string path;
    std::vector<Function> functions; // in the order of their registration
    PMI_PRINT_FUNCP print = nullptr;
    PMI_CODE_TEXT_FUNCP code_text = nullptr;

    // The function of this name, or the first one when `name` is empty. Throws UsageError when
    // there is none; the message lists those that there are.
    const Function &find_eval(const std::string &name) const; // invoke-once functions, too
    const Function &find_merge(const std::string &name) const;
};

// Loads a plug-in for the rest of the process's life. Throws UsageError, after which none of its
// functions is used.
Plugin load_plugin(const std::string &path);

} // namespace pmi_cli
