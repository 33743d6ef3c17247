/* Configuring the store, and what went wrong in words. */
#include "client/calls.h"

using namespace store;

int Omralib_configure(const OMRALIB_CONFIG *pconfig) {
    return answer_of([&]() -> int {
        opening_text().clear();
        if (pconfig == nullptr) {
            opening_text() = "pconfig is NULL";
            return OMRALIB_ERR_BAD_ARGS;
        }
        return configure_store(*pconfig, opening_text());
    });
}

/* Takes the handle without with_handle(), since a bad buffer must not cost the text. */
int Omralib_get_error_text(OMRALIB_HANDLE hdl, char *pbuf, unsigned int buf_len) {
    if (hdl == OMRALIB_NULL_HANDLE) {
        return copy_text(opening_text(), pbuf, buf_len);
    }
    Store *store = Store::current();
    if (store == nullptr) {
        return OMRALIB_ERR_BAD_HANDLE;
    }
    const HandleUse use(store->handles, hdl);
    return use.status() == OMRALIB_RET_SUCCESS ? copy_text(use->error_text, pbuf, buf_len)
                                               : use.status();
}
