/* The store client library: the operations of storlib.h and storapp.h.
 *
 * Every operation checks its handle, then its arguments, then its key, and hands the rest to the
 * room that knows how: handles.h, the engine, server.h, query.h and invocation.h. What stays
 * pending on a handle after a read is a reference to the object's bytes; Omralib_get_read_data
 * copies them.
 *
 * The short road, Omralib_read_obj and Omralib_get_read_data, allocates nothing. No exception
 * leaves this file: an operation that runs out of memory answers OMRALIB_ERR_NO_SPACE. */
#include "contracts.h"

#include <algorithm>
#include <cstring>
#include <new>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include "query.h"
#include "store.h"

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
    try {
        return operation(*store, use);
    } catch (const std::bad_alloc &) {
        return OMRALIB_ERR_NO_SPACE;
    }
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

/* The held lock `ticket` of `key`, or the end of the list. A ticket is worth nothing on any handle
 * but the one that took it. */
std::vector<HeldLock>::iterator find_lock(HandleUse &use, const Key &key, int ticket) {
    return std::find_if(use->locks.begin(), use->locks.end(), [&](const HeldLock &held) {
        return held.ticket == ticket && order_of(held.key, key) == 0;
    });
}

/* Drops a held lock from the handle's list when `status` says that it is gone. */
int drop_lock_if_gone(HandleUse &use, std::vector<HeldLock>::iterator held, bool released,
                      int status) {
    if ((status == OMRALIB_RET_SUCCESS && released) || status == OMRALIB_ERR_LOCK_LOST ||
        status == OMRALIB_ERR_OBJ_NOT_FOUND) {
        use->locks.erase(held);
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

/* Connection -------------------------------------------------------------------------------------
 */

int Omralib_init(void) {
    return open_store() != nullptr ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_CANT_INIT;
}

void Omralib_use_large_keys(void) {}

OMRALIB_HANDLE Omralib_open_ext(const char *pguid) {
    Store *store = open_store();
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
        for (const HeldLock &held : use->locks) {
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
    Store *store = open_store();
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
        use->locks.reserve(use->locks.size() + 1);
        ContentRef content;
        const int ticket = store.engine().read_and_lock(named.key, named.renew, content);
        if (ticket > 0) {
            use->locks.push_back({named.key, ticket});
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
        const auto held = find_lock(use, named.key, lock_tkt);
        if (held == use->locks.end()) {
            return OMRALIB_ERR_LOCK_LOST;
        }
        const Status status = store.engine().update(named.key, lock_tkt, unlock == 1, named.renew,
                                                    as_bytes(pdata, data_len));
        return drop_lock_if_gone(use, held, unlock == 1, status);
    });
}

int Omralib_unlock_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int options, OMRA_OBJKEY key) {
    (void)options;
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        const NamedObject named = without_mark(key);
        if (is_null(named.key)) {
            return OMRALIB_ERR_BAD_KEY;
        }
        const auto held = find_lock(use, named.key, lock_tkt);
        if (held == use->locks.end()) {
            return OMRALIB_ERR_LOCK_LOST;
        }
        return drop_lock_if_gone(use, held, true, store.engine().unlock(named.key, lock_tkt));
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
        return store.engine().count(app_id, *pcount_out);
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
        Status status = parse_request(as_bytes(preq, req_len), order);
        if (status != OMRALIB_RET_SUCCESS) {
            return status;
        }
        OMRA_INVOKE_RESULT result;
        status = store.invocations.run(order, result);
        if (status == OMRALIB_RET_SUCCESS) {
            hand_over(use, make_content(as_bytes(&result, sizeof result)), presult_len_out);
        }
        return status;
    });
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
    Store *store = open_store();
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
    pstats_out->num_invocations = store->invocations.num_finished();
    return OMRALIB_RET_SUCCESS;
}
