/* What a query would do. */
#include "client/calls.h"

#include "query/explanation.h"

using namespace store;

int Omralib_explain_query(OMRALIB_HANDLE hdl, unsigned int app_id, const void *pquery,
                          unsigned int query_len, char *pbuf, unsigned int buf_len) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        if (!valid_data(pquery, query_len) || pbuf == nullptr || buf_len == 0) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        std::string text;
        std::string why;
        const Status status =
            explain_query(store.objects(), app_id, as_bytes(pquery, query_len), text, why);
        if (status != OMRALIB_RET_SUCCESS) {
            use.explain(std::move(why));
            return status;
        }
        return copy_text(text, pbuf, buf_len);
    });
}
