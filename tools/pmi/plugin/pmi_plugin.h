/* Plug-ins of the pmi program: a shared library of named user functions.
 *
 * A plug-in exports one function, pmi_plugin_register. The program calls it once with a record of
 * callbacks; through these the plug-in names its functions and may offer two more, one that prints
 * its merged result and one that puts its failure codes into words. The program then registers the
 * functions with the module; a plug-in never does so itself, and it is never unloaded.
 *
 * The user functions are those of pmicli.h and keep its rules. C++ authors find pmi_plugin.hpp more
 * comfortable. */
#pragma once

#include "pmicli.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The version of this interface; it changes whenever a plug-in has to be compiled anew. */
#define PMI_PLUGIN_ABI 1u

/* Failure codes of the C++ interface: name, value, text. Positive codes below 1000000 are the
 * plug-in's own; negative ones are the module's and the store's. */
#define PMI_CODE_MAP(X)                                                                            \
    X(PMI_CODE_EXCEPTION, 1000000, "the function threw an exception")                              \
    X(PMI_CODE_NO_MEMORY, 1000001, "no memory for the function's result")                          \
    X(PMI_CODE_RESULT_TOO_LONG, 1000002, "the function's result has 4 GiB or more")                \
    X(PMI_CODE_EMPTY_MERGE, 1000003, "the merge function returned an empty result")                \
    X(PMI_CODE_BAD_RESULT, 1000004, "the bytes to merge or to print are no result of this plug-in")

enum {
#define PMI_CODE_ENUM(name, value, text) name = (value),
    PMI_CODE_MAP(PMI_CODE_ENUM)
#undef PMI_CODE_ENUM
};

/* How a result is to be printed. */
#define PMI_FORMAT_TABLE 0u /* text for people, ending with a newline */
#define PMI_FORMAT_JSON 1u  /* one JSON value */

/* A merged result to print, with what a printer needs besides. Valid during the call. */
typedef struct PMI_RESULT {
    unsigned int format; /* PMI_FORMAT_* */
    unsigned int data_len;
    const char *pdata;   /* never NULL */
    const char *pparams; /* the parameters of the invocation; NULL exactly when the length is 0 */
    unsigned int params_len;
    void *pprogram; /* handed to the two functions below */
    /* The name of the object with this key, valid as long as the record; NULL: there is none. The
     * key may carry OMRA_APPID_NO_RENEW. */
    const char *(*object_name)(void *pprogram, const OMRA_OBJKEY *pkey);
    /* Prints `text_len` bytes; may be called any number of times. */
    void (*write)(void *pprogram, const char *ptext, size_t text_len);
} PMI_RESULT;

/* Prints a merged result and returns 0; any other value says that it cannot in this format, and the
 * program then prints the bytes themselves. Called on the program's main thread. */
typedef int (*PMI_PRINT_FUNCP)(const PMI_RESULT *presult);

/* The text of one of the plug-in's failure codes, NULL for an unknown one; never released. */
typedef const char *(*PMI_CODE_TEXT_FUNCP)(int code);

/* What the program offers a plug-in that is being registered. Strings are copied. A function id is
 * from 0 to 63; an id or a name is used once in a plug-in, whatever the kind of function. */
typedef struct PMI_REGISTRAR {
    unsigned int abi_version; /* the program's PMI_PLUGIN_ABI */
    void *pprogram;           /* the program's own */
    void (*add_eval)(struct PMI_REGISTRAR *preg, unsigned int func_id, const char *name,
                     const char *description, OMRAPMI_EVAL_FUNCP pfunc);
    void (*add_invoke_once)(struct PMI_REGISTRAR *preg, unsigned int func_id, const char *name,
                            const char *description, OMRAPMI_EVAL_FUNCP pfunc);
    void (*add_merge)(struct PMI_REGISTRAR *preg, unsigned int func_id, const char *name,
                      const char *description, OMRAPMI_MERGE_FUNCP pfunc);
    void (*set_printer)(struct PMI_REGISTRAR *preg, PMI_PRINT_FUNCP pfunc);
    void (*set_code_text)(struct PMI_REGISTRAR *preg, PMI_CODE_TEXT_FUNCP pfunc);
} PMI_REGISTRAR;

#if defined(__GNUC__)
#define PMI_PLUGIN_EXPORT __attribute__((visibility("default")))
#else
#define PMI_PLUGIN_EXPORT
#endif

/* The plug-in's one exported function. It first compares `preg->abi_version` with PMI_PLUGIN_ABI
 * and touches nothing else when they differ. Returns PMI_PLUGIN_ABI; any other is refused. */
PMI_PLUGIN_EXPORT int pmi_plugin_register(PMI_REGISTRAR *preg);

#ifdef __cplusplus
}
#endif
