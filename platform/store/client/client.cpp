/* The store client library: the operations of storlib.h and storapp.h.
 *
 * Every operation checks its handle, then its arguments, then its key, and hands the rest to the
 * room that knows how: handles.h, the engine, server.h, query.h and invocation.h. What stays
 * pending on a handle after a read is a reference to the object's bytes; Omralib_get_read_data
 * copies them.
 *
 * The short road, Omralib_read_obj and Omralib_get_read_data, allocates nothing. No exception
 * leaves this file: an operation that runs out of memory answers OMRALIB_ERR_NO_SPACE. */
#include "engine/contracts.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include "client/store.h"
#include "query/request.h"

namespace store {

namespace {

/* Runs `operation(store, use)` with the handle taken. */
template <typename Operation>
int with_handle(OMRALIB_HANDLE hdl, Operation operation) noexcept {
    Store *store = current_store();
    if (store == nullptr) {
        return OMRALIB_ERR_BAD_HANDLE;
    }
    HandleUse use(store->handles, hdl);
    if (use.status() != OMRALIB_RET_SUCCESS) {
        return use.status();
    }
    int status = OMRALIB_ERR_NO_SPACE;
    try {
        status = operation(*store, use);
    } catch (const std::bad_alloc &) {
        /* The store is as it was. */
    }
    if (status < 0) {
        use.note_failure();
    }
    return status;
}

/* Why this thread's last attempt to configure or open the store failed; empty after a success. */
thread_local std::string opening_text;

Store *open_or_explain() noexcept {
    opening_text.clear();
    return open_store(opening_text);
}

/* Copies as much of `text` as there is room for, and a zero. */
int copy_text(std::string_view text, char *pbuf, unsigned int buf_len) {
    if (pbuf == nullptr || buf_len == 0) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    const std::size_t len = std::min<std::size_t>(text.size(), buf_len - 1);
    std::copy_n(text.data(), len, pbuf);
    pbuf[len] = '\0';
    return OMRALIB_RET_SUCCESS;
}

Bytes as_bytes(const void *pdata, unsigned int data_len) {
    return {static_cast<const std::byte *>(pdata), data_len};
}

bool valid_data(const void *pdata, unsigned int data_len) {
    return pdata != nullptr || data_len == 0;
}

/* Leaves the bytes of a successful read pending on the handle. */
void hand_over(HandleUse &use, ContentRef content, unsigned int *pdata_len_out) {
    *pdata_len_out = content->length();
    if (content->length() != 0) {
        use->pending = std::move(content);
    }
}

/* Drops a held lock from the handle's list when `status` says that it is gone. */
int drop_lock_if_gone(HandleUse &use, const Key &key, int ticket, bool released, int status) {
    if ((status == OMRALIB_RET_SUCCESS && released) || status == OMRALIB_ERR_LOCK_LOST ||
        status == OMRALIB_ERR_OBJ_NOT_FOUND) {
        use->locks.drop(key, ticket);
    }
    return status;
}

bool valid_indexes(const OMRA_OBJ_INDEX *pindexes, unsigned int num_indexes) {
    if (num_indexes > OMRA_NUM_INDEXES || (pindexes == nullptr && num_indexes != 0)) {
        return false;
    }
    unsigned int seen = 0;
    for (unsigned int i = 0; i < num_indexes; ++i) {
        if (pindexes[i].index >= OMRA_NUM_INDEXES || (seen >> pindexes[i].index & 1) != 0) {
            return false;
        }
        seen |= 1u << pindexes[i].index;
    }
    return true;
}

/* Creates or replaces an object, by `operation` of the engine. */
int put_object(OMRALIB_HANDLE hdl, Status (Engine::*operation)(const Key &, const ObjectSpec &),
               const void *pdata, unsigned int data_len, unsigned int timeout_m,
               const OMRA_OBJ_INDEX *pindexes, unsigned int num_indexes, const OMRA_OBJKEY &key) {
    return with_handle(hdl, [&](Store &store, HandleUse &) {
        if (!valid_data(pdata, data_len) || !valid_indexes(pindexes, num_indexes)) {
            return static_cast<int>(OMRALIB_ERR_BAD_ARGS);
        }
        const NamedObject named = without_mark(key);
        if (is_null(named.key)) {
            return static_cast<int>(OMRALIB_ERR_BAD_KEY);
        }
        const ObjectSpec spec{as_bytes(pdata, data_len), timeout_m, {pindexes, num_indexes}};
        return (store.engine().*operation)(named.key, spec);
    });
}

/* The first IPv4 address of an interface that is up and no loopback; else the loopback's. */
unsigned int find_host_addr() {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        return INADDR_LOOPBACK;
    }
    unsigned int addr = INADDR_LOOPBACK;
    for (const ifaddrs *it = list; it != nullptr; it = it->ifa_next) {
        if (it->ifa_addr != nullptr && it->ifa_addr->sa_family == AF_INET &&
            (it->ifa_flags & IFF_UP) != 0 && (it->ifa_flags & IFF_LOOPBACK) == 0) {
            sockaddr_in in{};
            std::memcpy(&in, it->ifa_addr, sizeof in);
            addr = ntohl(in.sin_addr.s_addr);
            break;
        }
    }
    freeifaddrs(list);
    return addr;
}

} // namespace

} // namespace store

using namespace store;

/* Configuration ----------------------------------------------------------------------------------
 */

int Omralib_configure(const OMRALIB_CONFIG *pconfig) {
    try {
        opening_text.clear();
        if (pconfig == nullptr) {
            opening_text = "pconfig is NULL";
            return OMRALIB_ERR_BAD_ARGS;
        }
        return configure_store(*pconfig, opening_text);
    } catch (const std::bad_alloc &) {
        return OMRALIB_ERR_NO_SPACE;
    }
}

/* Takes the handle without with_handle(), since a bad buffer must not cost the text. */
int Omralib_get_error_text(OMRALIB_HANDLE hdl, char *pbuf, unsigned int buf_len) {
    if (hdl == OMRALIB_NULL_HANDLE) {
        return copy_text(opening_text, pbuf, buf_len);
    }
    Store *store = current_store();
    if (store == nullptr) {
        return OMRALIB_ERR_BAD_HANDLE;
    }
    const HandleUse use(store->handles, hdl);
    return use.status() == OMRALIB_RET_SUCCESS ? copy_text(use->error_text, pbuf, buf_len)
                                               : use.status();
}

/* Connection -------------------------------------------------------------------------------------
 */

int Omralib_init(void) {
    return open_or_explain() != nullptr ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_CANT_INIT;
}

void Omralib_use_large_keys(void) {}

OMRALIB_HANDLE Omralib_open_ext(const char *pguid) {
    Store *store = open_or_explain();
    if (store == nullptr) {
        return OMRALIB_NULL_HANDLE;
    }
    Guid guid{};
    if (pguid != nullptr) {
        std::copy_n(pguid, guid.size(), guid.begin());
    }
    try {
        return store->handles.open(guid);
    } catch (const std::bad_alloc &) {
        return OMRALIB_NULL_HANDLE;
    }
}

int Omralib_close(OMRALIB_HANDLE hdl) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) {
        for (const HeldLock &held : use->locks.all()) {
            store.engine().unlock(held.key, held.ticket);
        }
        store.handles.close(hdl, use.slot());
        use.forget();
        return static_cast<int>(OMRALIB_RET_SUCCESS);
    });
}

int Omralib_handle_ready(OMRALIB_HANDLE hdl) {
    return with_handle(hdl, [](Store &, HandleUse &use) -> int {
        return use->pending ? OMRALIB_ERR_OBJ_READING : OMRALIB_RET_SUCCESS;
    });
}

unsigned int Omralib_get_host_addr(void) {
    static const unsigned int addr = find_host_addr();
    return addr;
}

/* Serving ----------------------------------------------------------------------------------------
 */

int Omralib_register_cb(unsigned int cb_type, OMRALIB_CB cb) {
    Store *store = open_or_explain();
    return store != nullptr ? store->server.set_callback(cb_type, cb) : OMRALIB_ERR_CANT_INIT;
}

int Omralib_register_appname_hdl(OMRALIB_HANDLE hdl, const char *name, unsigned int name_len,
                                 unsigned int *papp_id_out) {
    return with_handle(hdl, [&](Store &store, HandleUse &) -> int {
        if (name == nullptr || name_len == 0 || papp_id_out == nullptr) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        return store.engine().bind_name({name, name_len}, *papp_id_out);
    });
}

int Omralib_start_app_event_handling(OMRALIB_HANDLE hdl, unsigned int event_app_id) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        store.server.start(event_app_id, use->guid);
        return OMRALIB_RET_SUCCESS;
    });
}

int Omralib_stop_app_event_handling(OMRALIB_HANDLE hdl, unsigned int event_app_id) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        store.server.stop(event_app_id, use->guid);
        return OMRALIB_RET_SUCCESS;
    });
}

/* Objects ----------------------------------------------------------------------------------------
 */

int Omralib_store_obj(OMRALIB_HANDLE hdl, unsigned int options, const void *pdata,
                      unsigned int data_len, unsigned int timeout_m, OMRA_OBJKEY key) {
    (void)options;
    return put_object(hdl, &Engine::create, pdata, data_len, timeout_m, nullptr, 0, key);
}

int Omralib_store_indexed_obj(OMRALIB_HANDLE hdl, const void *pdata, unsigned int data_len,
                              unsigned int timeout_m, const OMRA_OBJ_INDEX *pindexes,
                              unsigned int num_indexes, OMRA_OBJKEY key) {
    return put_object(hdl, &Engine::create, pdata, data_len, timeout_m, pindexes, num_indexes, key);
}

int Omralib_replace_obj(OMRALIB_HANDLE hdl, const void *pdata, unsigned int data_len,
                        unsigned int timeout_m, const OMRA_OBJ_INDEX *pindexes,
                        unsigned int num_indexes, OMRA_OBJKEY key) {
    return put_object(hdl, &Engine::replace, pdata, data_len, timeout_m, pindexes, num_indexes,
                      key);
}

int Omralib_read_obj(OMRALIB_HANDLE hdl, unsigned int options, unsigned int *pdata_len_out,
                     OMRA_OBJKEY key) {
    (void)options;
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        if (pdata_len_out == nullptr) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        if (use->pending) {
            return OMRALIB_ERR_OBJ_READING;
        }
        const NamedObject named = without_mark(key);
        if (is_null(named.key)) {
            return OMRALIB_ERR_BAD_KEY;
        }
        if (store.server.is_noticing() && !store.server.note_read(use->guid, named.key)) {
            return OMRALIB_ERR_OBJ_NOT_FOUND;
        }
        ContentRef content;
        const Status status = store.engine().read(named.key, named.renew, content);
        if (status == OMRALIB_RET_SUCCESS) {
            hand_over(use, std::move(content), pdata_len_out);
            use->count_read();
        }
        return status;
    });
}

int Omralib_get_read_data(OMRALIB_HANDLE hdl, void *pbuf, unsigned int len) {
    return with_handle(hdl, [&](Store &, HandleUse &use) -> int {
        if (!use->pending) {
            return OMRALIB_ERR_NOT_READING;
        }
        const Bytes bytes = use->pending->bytes();
        if (pbuf == nullptr || len != bytes.size()) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        std::memcpy(pbuf, bytes.data(), len);
        use->pending.reset();
        return OMRALIB_RET_SUCCESS;
    });
}

int Omralib_flush_read_data(OMRALIB_HANDLE hdl) {
    return with_handle(hdl, [](Store &, HandleUse &use) -> int {
        if (!use->pending) {
            return OMRALIB_ERR_NOT_READING;
        }
        use->pending.reset();
        return OMRALIB_RET_SUCCESS;
    });
}

int Omralib_read_and_lock_obj(OMRALIB_HANDLE hdl, unsigned int options, unsigned int lock_options,
                              unsigned int *pdata_len_out, OMRA_OBJKEY key) {
    (void)options;
    (void)lock_options;
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        if (pdata_len_out == nullptr) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        if (use->pending) {
            return OMRALIB_ERR_OBJ_READING;
        }
        const NamedObject named = without_mark(key);
        if (is_null(named.key)) {
            return OMRALIB_ERR_BAD_KEY;
        }
        use->locks.prepare();
        /* Waiting for a lock of its own would be in vain. */
        const Millis patience =
            use->locks.contains(named.key) ? 0 : store.configuration().lock_patience;
        ContentRef content;
        const int ticket = store.engine().read_and_lock(named.key, named.renew, patience, content);
        if (ticket > 0) {
            use->locks.add({named.key, ticket});
            store.leases.note_lock();
            hand_over(use, std::move(content), pdata_len_out);
            use->count_read();
        }
        return ticket;
    });
}

int Omralib_update_locked_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int unlock,
                              unsigned int options, const void *pdata, unsigned int data_len,
                              OMRA_OBJKEY key) {
    (void)options;
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        if (unlock > 1 || !valid_data(pdata, data_len)) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        const NamedObject named = without_mark(key);
        if (is_null(named.key)) {
            return OMRALIB_ERR_BAD_KEY;
        }
        /* A ticket is worth nothing on any handle but the one that took it. */
        if (!use->locks.contains(named.key, lock_tkt)) {
            return OMRALIB_ERR_LOCK_LOST;
        }
        const Status status = store.engine().update(named.key, lock_tkt, unlock == 1, named.renew,
                                                    as_bytes(pdata, data_len));
        return drop_lock_if_gone(use, named.key, lock_tkt, unlock == 1, status);
    });
}

int Omralib_unlock_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int options, OMRA_OBJKEY key) {
    (void)options;
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        const NamedObject named = without_mark(key);
        if (is_null(named.key)) {
            return OMRALIB_ERR_BAD_KEY;
        }
        if (!use->locks.contains(named.key, lock_tkt)) {
            return OMRALIB_ERR_LOCK_LOST;
        }
        const Status status = store.engine().unlock(named.key, lock_tkt);
        return drop_lock_if_gone(use, named.key, lock_tkt, true, status);
    });
}

int Omralib_remove_obj(OMRALIB_HANDLE hdl, unsigned int options, OMRA_OBJKEY key) {
    (void)options;
    return with_handle(hdl, [&](Store &store, HandleUse &) -> int {
        const NamedObject named = without_mark(key);
        if (is_null(named.key)) {
            return OMRALIB_ERR_BAD_KEY;
        }
        return store.engine().remove(named.key);
    });
}

int Omralib_count_objs(OMRALIB_HANDLE hdl, unsigned int app_id, ULONGLONG *pcount_out) {
    return with_handle(hdl, [&](Store &store, HandleUse &) -> int {
        if (pcount_out == nullptr) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        *pcount_out = store.engine().totals_of(app_id).num_objects;
        return OMRALIB_RET_SUCCESS;
    });
}

int Omralib_list_objs(OMRALIB_HANDLE hdl, unsigned int app_id, OMRALIB_KEY_FUNC pfunc, void *parg) {
    return with_handle(hdl, [&](Store &store, HandleUse &) -> int {
        if (pfunc == nullptr) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        Selection everything;
        everything.app_id = app_id;
        std::vector<Key> keys;
        const Status status = store.engine().find(everything, keys);
        if (status != OMRALIB_RET_SUCCESS) {
            return status;
        }
        for (const Key &key : keys) {
            if (pfunc(&key, parg) != 0) {
                break;
            }
        }
        return OMRALIB_RET_SUCCESS;
    });
}

/* Queries ----------------------------------------------------------------------------------------
 */

int Omralib_explain_query(OMRALIB_HANDLE hdl, unsigned int app_id, const void *pquery,
                          unsigned int query_len, char *pbuf, unsigned int buf_len) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        if (!valid_data(pquery, query_len) || pbuf == nullptr || buf_len == 0) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        std::string text;
        std::string why;
        const Status status =
            explain_query(store.engine(), app_id, as_bytes(pquery, query_len), text, why);
        if (status != OMRALIB_RET_SUCCESS) {
            use.explain(std::move(why));
            return status;
        }
        return copy_text(text, pbuf, buf_len);
    });
}

/* Invocations ------------------------------------------------------------------------------------
 */

int Omralib_invoke(OMRALIB_HANDLE hdl, unsigned int options, const void *preq, unsigned int req_len,
                   unsigned int *presult_len_out) {
    (void)options;
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        if (preq == nullptr || presult_len_out == nullptr) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        if (use->pending) {
            return OMRALIB_ERR_OBJ_READING;
        }
        InvokeOrder order;
        std::string why;
        Status status = parse_request(as_bytes(preq, req_len), order, why);
        if (status != OMRALIB_RET_SUCCESS) {
            use.explain(std::move(why));
            return status;
        }
        OMRA_INVOKE_RESULT result;
        status = store.invocations.run(order, {hdl, use->progress, use->progress_arg}, result);
        if (status == OMRALIB_RET_SUCCESS) {
            hand_over(use, make_content(as_bytes(&result, sizeof result)), presult_len_out);
        }
        return status;
    });
}

int Omralib_set_progress_func(OMRALIB_HANDLE hdl, OMRALIB_PROGRESS_FUNC pfunc, void *parg) {
    return with_handle(hdl, [&](Store &, HandleUse &use) -> int {
        use->progress = pfunc;
        use->progress_arg = parg;
        return OMRALIB_RET_SUCCESS;
    });
}

/* Without taking the handle, which the invocation has. */
int Omralib_cancel_invoke(OMRALIB_HANDLE hdl) {
    Store *store = current_store();
    if (store == nullptr || !store->handles.is_open(hdl)) {
        return OMRALIB_ERR_BAD_HANDLE;
    }
    store->invocations.cancel(hdl);
    return OMRALIB_RET_SUCCESS;
}

int Omralib_declare_host_gone(unsigned int host_id) {
    Store *store = open_or_explain();
    return store != nullptr ? store->engine().declare_gone(host_id) : OMRALIB_ERR_CANT_INIT;
}

int Omralib_get_invoke_keys(unsigned int context, OMRA_OBJKEY *pkeys, unsigned int num_keys) {
    Store *store = current_store();
    if (store == nullptr || pkeys == nullptr) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    return store->server.get_keys(context, {pkeys, num_keys});
}

int Omralib_complete_invoke(OMRALIB_HANDLE hdl, unsigned int context, unsigned int num_successful,
                            unsigned int num_failed) {
    return with_handle(hdl, [&](Store &store, HandleUse &) {
        return store.server.complete(context, num_successful, num_failed);
    });
}

int Omralib_flush_invoke(unsigned int context) {
    Store *store = current_store();
    return store != nullptr ? store->server.flush(context) : OMRALIB_ERR_BAD_ARGS;
}

/* Figures ----------------------------------------------------------------------------------------
 */

int Omralib_get_stats(OMRALIB_STATS *pstats_out) {
    Store *store = open_or_explain();
    if (store == nullptr) {
        return OMRALIB_ERR_CANT_INIT;
    }
    if (pstats_out == nullptr) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    const Totals totals = store->engine().totals();
    pstats_out->num_objects = totals.num_objects;
    pstats_out->num_bytes = totals.num_bytes;
    pstats_out->num_reads = store->handles.num_reads();
    const Activity activity = store->engine().activity();
    pstats_out->num_lock_waits = activity.num_lock_waits;
    pstats_out->num_expired = activity.num_expired;
    const InvocationFigures &invocations = store->invocations.figures();
    pstats_out->num_invocations = invocations.num_finished;
    pstats_out->num_invocations_running = invocations.num_running;
    pstats_out->num_evaluated = invocations.num_evaluated;
    pstats_out->num_folds = invocations.num_folds;
    pstats_out->num_refusals = invocations.num_refusals;
    pstats_out->num_retries = invocations.num_retries;
    pstats_out->invocation_us = invocations.time_us;
    return OMRALIB_RET_SUCCESS;
}

int Omralib_get_app_stats(unsigned int app_id, OMRALIB_APP_STATS *pstats_out) {
    Store *store = open_or_explain();
    if (store == nullptr) {
        return OMRALIB_ERR_CANT_INIT;
    }
    if (pstats_out == nullptr) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    const Totals totals = store->engine().totals_of(app_id);
    *pstats_out = {totals.num_objects, totals.num_bytes};
    return OMRALIB_RET_SUCCESS;
}
