/* Objects under their keys, one at a time, many at once, and listed. Omralib_read_obj and
 * Omralib_get_read_data, the short road, allocate nothing. */
#include "client/calls.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "query/language.h"

namespace store {

namespace {

/* How long a read under lock waits for another holder. */
constexpr Millis lock_patience = 5;

/* Whoever waits for an object of a request has to know that there was no room for it. */
int note_no_room(Store &store, const Key &key, int status) {
    if (status == OMRALIB_ERR_NO_SPACE && key.app_id == reserved_app_id) {
        store.serving.chunks.note_no_room(key);
    }
    return status;
}

/* An object that somebody who handles requests is about to read, with nothing pending. */
OpenChunks::Found find_for_request(Store &store, HandleUse &use, const Key &key) {
    return use->handles_requests
               ? store.serving.chunks.read(use->guid, key, use->cursor, use->pending)
               : OpenChunks::Found::nothing;
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

/* What has to be done once an object was stored, or was not. */
int note_stored(Store &store, HandleUse &use, const Key &key, unsigned int data_len, int status) {
    if (status == OMRALIB_RET_SUCCESS) {
        use->note.note(HandleNote::Deed::written, key, data_len);
    }
    return note_no_room(store, key, status);
}

/* Creates or replaces an object, by `operation`. */
int put_object(OMRALIB_HANDLE hdl, Status (Objects::*operation)(const Key &, const ObjectSpec &),
               const void *pdata, unsigned int data_len, unsigned int timeout_m,
               const OMRA_OBJ_INDEX *pindexes, unsigned int num_indexes, const OMRA_OBJKEY &key) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) {
        if (!valid_data(pdata, data_len) || !valid_indexes(pindexes, num_indexes)) {
            return static_cast<int>(OMRALIB_ERR_BAD_ARGS);
        }
        const NamedObject named = without_mark(key);
        if (is_null(named.key)) {
            return static_cast<int>(OMRALIB_ERR_BAD_KEY);
        }
        const ObjectSpec spec{as_bytes(pdata, data_len), timeout_m, {pindexes, num_indexes}};
        return note_stored(store, use, named.key, data_len,
                           (store.objects().*operation)(named.key, spec));
    });
}

} // namespace

} // namespace store

using namespace store;

int Omralib_store_obj(OMRALIB_HANDLE hdl, unsigned int options, const void *pdata,
                      unsigned int data_len, unsigned int timeout_m, OMRA_OBJKEY key) {
    (void)options;
    return put_object(hdl, &Objects::create, pdata, data_len, timeout_m, nullptr, 0, key);
}

int Omralib_store_indexed_obj(OMRALIB_HANDLE hdl, const void *pdata, unsigned int data_len,
                              unsigned int timeout_m, const OMRA_OBJ_INDEX *pindexes,
                              unsigned int num_indexes, OMRA_OBJKEY key) {
    return put_object(hdl, &Objects::create, pdata, data_len, timeout_m, pindexes, num_indexes,
                      key);
}

int Omralib_replace_obj(OMRALIB_HANDLE hdl, const void *pdata, unsigned int data_len,
                        unsigned int timeout_m, const OMRA_OBJ_INDEX *pindexes,
                        unsigned int num_indexes, OMRA_OBJKEY key) {
    return put_object(hdl, &Objects::replace, pdata, data_len, timeout_m, pindexes, num_indexes,
                      key);
}

int Omralib_store_objs(OMRALIB_HANDLE hdl, OMRALIB_NEW_OBJ *pobjs, unsigned int num_objs) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        if (pobjs == nullptr && num_objs != 0) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        std::vector<NewObject> objects;
        objects.reserve(num_objs);
        for (const OMRALIB_NEW_OBJ &given : std::span(pobjs, num_objs)) {
            if (!valid_data(given.pdata, given.data_len) ||
                !valid_indexes(given.pindexes, given.num_indexes)) {
                return OMRALIB_ERR_BAD_ARGS;
            }
            const Key key = without_mark(given.key).key;
            if (is_null(key)) {
                return OMRALIB_ERR_BAD_KEY;
            }
            objects.push_back({key,
                               {as_bytes(given.pdata, given.data_len),
                                given.timeout_m,
                                {given.pindexes, given.num_indexes}}});
        }
        for (OMRALIB_NEW_OBJ &given : std::span(pobjs, num_objs)) {
            given.status_out = OMRALIB_ERR_UNKNOWN; /* if memory runs out */
        }
        std::vector<Status> statuses(num_objs);
        const Status status = store.objects().create_many(objects, statuses);
        for (unsigned int i = 0; i < num_objs; ++i) {
            pobjs[i].status_out =
                note_stored(store, use, objects[i].key, pobjs[i].data_len, statuses[i]);
        }
        return status;
    });
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
        Status status = OMRALIB_RET_SUCCESS;
        switch (find_for_request(store, use, named.key)) {
        case OpenChunks::Found::at_hand:
            break;
        case OpenChunks::Found::withdrawn:
            return OMRALIB_ERR_OBJ_NOT_FOUND;
        case OpenChunks::Found::nothing:
            status = store.objects().read(named.key, named.renew, use->pending);
            break;
        }
        if (status == OMRALIB_RET_SUCCESS) {
            *pdata_len_out = use->pending.length();
            if (use->pending.length() == 0) {
                use->pending.reset();
            }
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
        const Bytes bytes = use->pending.bytes();
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
        const Millis patience = use->locks.contains(named.key) ? 0 : lock_patience;
        int ticket = OMRALIB_NULL_LOCK_TKT;
        Content content;
        const Status status =
            store.objects().read_and_lock(named.key, named.renew, patience, ticket, content);
        if (status != OMRALIB_RET_SUCCESS) {
            return status;
        }
        use->locks.add({named.key, ticket});
        store.leases.note_lock();
        use->note.note(HandleNote::Deed::locked, named.key);
        hand_over(use, std::move(content), pdata_len_out);
        use->count_read();
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
        const Status status = store.objects().update(named.key, lock_tkt, unlock == 1, named.renew,
                                                     as_bytes(pdata, data_len));
        if (status == OMRALIB_RET_SUCCESS && named.key.app_id == reserved_app_id) {
            use->note.note(HandleNote::Deed::written, named.key, data_len);
            store.serving.chunks.note_update(named.key);
        }
        note_no_room(store, named.key, status);
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
        const Status status = store.objects().unlock(named.key, lock_tkt);
        use->note.note_unlocked(named.key);
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
        return store.objects().remove(named.key);
    });
}

int Omralib_remove_objs(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkeys, unsigned int num_keys,
                        int *pstatuses_out) {
    return with_handle(hdl, [&](Store &store, HandleUse &) -> int {
        if ((pkeys == nullptr || pstatuses_out == nullptr) && num_keys != 0) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        std::vector<Key> keys;
        keys.reserve(num_keys);
        for (const OMRA_OBJKEY &given : std::span(pkeys, num_keys)) {
            keys.push_back(without_mark(given).key);
            if (is_null(keys.back())) {
                return OMRALIB_ERR_BAD_KEY;
            }
        }
        std::fill_n(pstatuses_out, num_keys, OMRALIB_ERR_UNKNOWN); /* if memory runs out */
        return store.objects().remove_many(keys, {pstatuses_out, num_keys});
    });
}

int Omralib_count_objs(OMRALIB_HANDLE hdl, unsigned int app_id, ULONGLONG *pcount_out) {
    return with_handle(hdl, [&](Store &store, HandleUse &) -> int {
        if (pcount_out == nullptr) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        Totals totals;
        const Status status = store.objects().totals_of(app_id, totals);
        if (status == OMRALIB_RET_SUCCESS) {
            *pcount_out = totals.num_objects;
        }
        return status;
    });
}

int Omralib_list_objs(OMRALIB_HANDLE hdl, unsigned int app_id, OMRALIB_KEY_FUNC pfunc, void *parg) {
    return Omralib_find_objs(hdl, app_id, nullptr, 0, pfunc, parg);
}

int Omralib_find_objs(OMRALIB_HANDLE hdl, unsigned int app_id, const void *pquery,
                      unsigned int query_len, OMRALIB_KEY_FUNC pfunc, void *parg) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        if (pfunc == nullptr || !valid_data(pquery, query_len)) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        Selection selection;
        selection.app_id = app_id;
        std::string why;
        if (query_len != 0 && parse_query({static_cast<const char *>(pquery), query_len}, selection,
                                          why) != OMRALIB_RET_SUCCESS) {
            use.explain(std::move(why));
            return OMRALIB_ERR_BAD_QUERY;
        }
        std::vector<Key> keys;
        const Status status = find(store.objects(), selection, nullptr, keys);
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
