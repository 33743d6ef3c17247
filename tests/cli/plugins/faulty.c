/* Plug-ins that must be refused, one for each value of FAULT. */
#include "pmi_plugin.h"

enum { SAME_ID, SAME_NAME, ID_64, NOTHING, OTHER_VERSION, NULL_FUNCTION, NO_MERGE };

static int eval(const char *pdata, unsigned int data_len, const char *pparams,
                unsigned int params_len, char **ppresult_out, unsigned int *presult_len_out) {
    (void)pdata, (void)data_len, (void)pparams, (void)params_len, (void)ppresult_out;
    (void)presult_len_out;
    return 0;
}

int pmi_plugin_register(PMI_REGISTRAR *preg) {
    if (FAULT != NOTHING) {
        preg->add_eval(preg, 5, "first", "", eval);
    }
    switch (FAULT) {
    case SAME_ID:
        preg->add_invoke_once(preg, 5, "second", "", eval);
        break;
    case SAME_NAME:
        preg->add_eval(preg, 6, "first", "", eval);
        break;
    case ID_64:
        preg->add_eval(preg, 64, "second", "", eval);
        break;
    case NULL_FUNCTION:
        preg->add_merge(preg, 6, "second", "", NULL);
        break;
    default:
        break;
    }
    return FAULT == OTHER_VERSION ? 99 : (int)PMI_PLUGIN_ABI;
}
