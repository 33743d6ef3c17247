// The only place where a user merge function is called, and the rule of who owns which result.
//
// A user function may break its side of the bargain; that is reported, and then no block is freed
// twice or used after it was freed.
#include "eval/user_merge.h"

#include "common/trace.h"
#include "eval/exceptions.h"

BOOLEAN Omrapmi_worker_merge_wrapper(OMRAPMI_MERGE_FUNCP pfunc_merge,
                                     OMRAPMI_USER_EXCEPTIONS *puser_exceptions,
                                     char **ppresults_obj_dst_out,
                                     unsigned int *presults_obj_len_dst_out, char *presults_obj_src,
                                     unsigned int results_obj_len_src) {
    OMRAPMI_ASSERT(pfunc_merge != NULL);
    OMRAPMI_ASSERT(ppresults_obj_dst_out != NULL);
    OMRAPMI_ASSERT(presults_obj_len_dst_out != NULL);
    OMRAPMI_ASSERT(*ppresults_obj_dst_out != NULL);
    OMRAPMI_ASSERT(presults_obj_src != NULL);
    OMRAPMI_ASSERT(*ppresults_obj_dst_out != presults_obj_src);

    char *presults_obj_out = NULL;
    unsigned int results_obj_len_out = 0;
    const int user_ret =
        pfunc_merge(*ppresults_obj_dst_out, *presults_obj_len_dst_out, presults_obj_src,
                    results_obj_len_src, &presults_obj_out, &results_obj_len_out);
    if (user_ret != 0) {
        Omrapmi_log_user_exception(puser_exceptions, user_ret, TRUE, NULL);
        return FALSE;
    }
    if (presults_obj_out == *ppresults_obj_dst_out) {
        OMRAPMI_ASSERT(results_obj_len_out == *presults_obj_len_dst_out);
        return TRUE;
    }
    Sys_free(*ppresults_obj_dst_out);
    *ppresults_obj_dst_out = presults_obj_out;
    *presults_obj_len_dst_out = results_obj_len_out;
    OMRAPMI_ASSERT(*ppresults_obj_dst_out != presults_obj_src);
    if (*ppresults_obj_dst_out == NULL) { // nothing is there to be read or stored
        OMRAPMI_ASSERT(*presults_obj_len_dst_out == 0);
        *presults_obj_len_dst_out = 0;
    }
    return TRUE;
}

BOOLEAN Omrapmi_worker_merge_in_mem(OMRAPMI_MERGE_FUNCP pfunc_merge,
                                    OMRAPMI_USER_EXCEPTIONS *puser_exceptions,
                                    char **ppresults_obj_dst_out,
                                    unsigned int *presults_obj_len_dst_out, char *presults_obj_src,
                                    unsigned int results_obj_len_src) {
    OMRAPMI_ASSERT(pfunc_merge != NULL);
    OMRAPMI_ASSERT(ppresults_obj_dst_out != NULL);
    OMRAPMI_ASSERT(presults_obj_len_dst_out != NULL);
    if (presults_obj_src == NULL) {
        OMRAPMI_ASSERT(results_obj_len_src == 0);
        return TRUE;
    }
    if (*ppresults_obj_dst_out == NULL) {
        OMRAPMI_ASSERT(*presults_obj_len_dst_out == 0);
        *ppresults_obj_dst_out = presults_obj_src;
        *presults_obj_len_dst_out = results_obj_len_src;
        return TRUE;
    }
    OMRAPMI_ASSERT(*ppresults_obj_dst_out != presults_obj_src);
    const BOOLEAN fret = Omrapmi_worker_merge_wrapper(
        pfunc_merge, puser_exceptions, ppresults_obj_dst_out, presults_obj_len_dst_out,
        presults_obj_src, results_obj_len_src);
    if (*ppresults_obj_dst_out != presults_obj_src) {
        Sys_free(presults_obj_src);
    }
    return fret;
}
