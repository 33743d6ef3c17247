/* A C11 program sees every record, code and operation of the public header. */
#include "pmicli.h"

int c11_user(OMRALIB_HANDLE hdl);

int c11_user(OMRALIB_HANDLE hdl) {
    OMRAPMI_INVOKE_ARGS args = {.app_id = 7, .timeout_s = 10, .use_query_spec = OMRAPMI_QUERY_NONE};
    OMRAPMI_INVOKE_EXT_ARGS args_ext = {.event_app_id = 7};
    OMRA_OBJKEY key = {0};
    int ret = Omrapmi_invoke_ext(hdl, &args, &args_ext);
    if (ret != OMRALIB_RET_SUCCESS) {
        return Omrapmi_status_text(ret) && Omrapmi_status_name(ret) ? ret : 0;
    }
    Omrapmi_free(args.presults_obj_out);
    Omrapmi_free(args.pexceptions_out);
    return OMRA_OBJKEY_IS_NULL(key) && omrapmi_in_svc ? OMRAPMI_ERR_BAD_APP_ID : ret;
}
