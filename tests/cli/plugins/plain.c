/* A plug-in in plain C: adds up the lengths of objects. It also has functions that fail, that never
 * return, and that run on no object. */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "pmi_plugin.h"

enum { STARTS_WITH_F = 7, MERGE_REFUSED = 9 };

static int give(ULONGLONG number, char **ppresult_out, unsigned int *presult_len_out) {
    char *pblock = Omrapmi_malloc(sizeof number);
    if (pblock == NULL) {
        return PMI_CODE_NO_MEMORY;
    }
    memcpy(pblock, &number, sizeof number);
    *ppresult_out = pblock;
    *presult_len_out = sizeof number;
    return 0;
}

static int length(const char *pdata, unsigned int data_len, const char *pparams,
                  unsigned int params_len, char **ppresult_out, unsigned int *presult_len_out) {
    (void)pparams;
    if (data_len > 0 && pdata[0] == 'f') {
        return STARTS_WITH_F;
    }
    return give(data_len + params_len, ppresult_out, presult_len_out);
}

static int once(const char *pdata, unsigned int data_len, const char *pparams,
                unsigned int params_len, char **ppresult_out, unsigned int *presult_len_out) {
    (void)pdata, (void)data_len, (void)pparams;
    return give(1000 + params_len, ppresult_out, presult_len_out);
}

static int park(const char *pdata, unsigned int data_len, const char *pparams,
                unsigned int params_len, char **ppresult_out, unsigned int *presult_len_out) {
    (void)pdata, (void)data_len, (void)pparams, (void)params_len, (void)ppresult_out;
    (void)presult_len_out;
    while (pause() == -1) {
    }
    return 0;
}

static int sum(char *pdst, unsigned int dst_len, const char *psrc, unsigned int src_len,
               char **ppmerged_out, unsigned int *pmerged_len_out) {
    ULONGLONG into = 0;
    ULONGLONG from = 0;
    (void)src_len;
    memcpy(&into, pdst, sizeof into);
    memcpy(&from, psrc, sizeof from);
    into += from;
    memcpy(pdst, &into, sizeof into);
    *ppmerged_out = pdst;
    *pmerged_len_out = dst_len;
    return 0;
}

static int refuse(char *pdst, unsigned int dst_len, const char *psrc, unsigned int src_len,
                  char **ppmerged_out, unsigned int *pmerged_len_out) {
    (void)pdst, (void)dst_len, (void)psrc, (void)src_len, (void)ppmerged_out, (void)pmerged_len_out;
    return MERGE_REFUSED;
}

/* Offers a table and no JSON. */
static int print(const PMI_RESULT *presult) {
    ULONGLONG total = 0;
    char text[64];
    if (presult->format != PMI_FORMAT_TABLE) {
        return 1;
    }
    memcpy(&total, presult->pdata, sizeof total);
    const int len = snprintf(text, sizeof text, "total %llu\n", (unsigned long long)total);
    presult->write(presult->pprogram, text, (size_t)len);
    return 0;
}

static const char *code_text(int code) {
    return code == STARTS_WITH_F ? "the object starts with f" : NULL;
}

int pmi_plugin_register(PMI_REGISTRAR *preg) {
    if (preg->abi_version == PMI_PLUGIN_ABI) {
        preg->add_eval(preg, 0, "length", "The length of an object and of the parameters", length);
        preg->add_merge(preg, 1, "sum", "Adds lengths", sum);
        preg->add_invoke_once(preg, 2, "once", "1000 and the length of the parameters", once);
        preg->add_eval(preg, 3, "park", "Never returns", park);
        preg->add_merge(preg, 4, "refuse", "Always fails", refuse);
        preg->set_printer(preg, print);
        preg->set_code_text(preg, code_text);
    }
    return PMI_PLUGIN_ABI;
}
