/* A plug-in in plain C: finds the largest first byte of all objects. C takes every header. */
#include "pmi_plugin.h"
#include "storapp.h"
#include "sysapp.h"

static int first_byte(const char *data, unsigned data_len, const char *params, unsigned params_len,
                      char **result, unsigned *result_len) {
    (void)data_len, (void)params, (void)params_len;
    *result = Omrapmi_malloc(1);
    if (*result == NULL) {
        return 1;
    }
    **result = *data;
    *result_len = 1;
    return 0;
}

static int larger(char *dst, unsigned dst_len, const char *src, unsigned src_len, char **merged,
                  unsigned *merged_len) {
    (void)src_len;
    *dst = *src > *dst ? *src : *dst;
    *merged = dst;
    *merged_len = dst_len;
    return 0;
}

int pmi_plugin_register(PMI_REGISTRAR *preg) {
    if (preg->abi_version == PMI_PLUGIN_ABI) {
        preg->add_eval(preg, 0, "first", "the object's first byte", first_byte);
        preg->add_merge(preg, 1, "larger", "the larger of two bytes", larger);
    }
    return PMI_PLUGIN_ABI;
}
