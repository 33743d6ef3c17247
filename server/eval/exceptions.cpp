// Recording a failure of a user function, or of a read, in the request's list.
//
// The list was made with the request at its worst-case size and cannot overflow: a key whose eval
// failed has no result, and every merge leaves one result fewer, so a request of n keys has at most
// n failures. It is read without the lock at completion, when no other thread works on the request.
#include "eval/exceptions.h"

#include "common/trace.h"

void Omrapmi_log_user_exception(OMRAPMI_USER_EXCEPTIONS *puser_exceptions, int code,
                                BOOLEAN is_merge, OMRA_OBJKEY *pkey) {
    OMRAPMI_ASSERT(puser_exceptions != NULL);
    OMRAPMI_ASSERT(code != 0);
    OMRAPMI_ASSERT(!is_merge || pkey == NULL);

    OMRAPMI_EXCEPTION exception = {};
    exception.code = code;
    exception.is_eval = !is_merge;
    if (pkey != NULL) {
        exception.key = *pkey;
    }
    Spinlock_enter(&puser_exceptions->slock);
    const BOOLEAN has_room = puser_exceptions->num < puser_exceptions->max_num;
    if (has_room) {
        puser_exceptions->plist[puser_exceptions->num++] = exception;
    }
    Spinlock_exit(&puser_exceptions->slock);
    if (!has_room) {
        Sys_log_assert("server/pmicli", __LINE__,
                       "puser_exceptions->num < puser_exceptions->max_num");
    }
}
