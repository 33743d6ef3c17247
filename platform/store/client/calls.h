/* What the operations of storlib.h and storapp.h have in common.
 *
 * Every operation checks its handle, then its arguments, then its key, and hands the rest to the
 * room that knows how. What stays pending on a handle after a read is the object's content, from
 * which Omralib_get_read_data copies. Every operation goes through one of the doors below: no
 * exception leaves it, and one that runs out of memory or threads answers OMRALIB_ERR_NO_SPACE.
 *
 * The chapters of the headers are a file each: configuration, connection, serving, objects,
 * queries, invocations, figures. */
#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "client/opening.h"
#include "client/store.h"
#include "engine/contracts.h"

namespace store {

/* Why this thread's last attempt to configure or open the store failed; empty after a success. */
std::string &opening_text();

/* The process's store, opened if need be; nullptr, and why in opening_text(). */
Store *open_or_explain() noexcept;

/* What `operation()` answers. */
template <typename Operation>
int answer_of(Operation operation) noexcept {
    try {
        return operation();
    } catch (const std::exception &) {
        return OMRALIB_ERR_NO_SPACE; /* the store is as it was */
    }
}

/* Runs `operation(store, use)` with the handle taken. */
template <typename Operation>
int with_handle(OMRALIB_HANDLE hdl, Operation operation) noexcept {
    Store *store = Store::current();
    if (store == nullptr) {
        return OMRALIB_ERR_BAD_HANDLE;
    }
    HandleUse use(store->handles, hdl);
    if (use.status() != OMRALIB_RET_SUCCESS) {
        return use.status();
    }
    const int status = answer_of([&]() -> int { return operation(*store, use); });
    if (status < 0) {
        use.note_failure(status);
    }
    return status;
}

/* Runs `operation(store)` on the process's store, opened if need be. */
template <typename Operation>
int with_store(Operation operation) noexcept {
    Store *store = open_or_explain();
    if (store == nullptr) {
        return OMRALIB_ERR_CANT_INIT;
    }
    return answer_of([&]() -> int { return operation(*store); });
}

/* Runs `operation(store)` on the process's store; without one answers `otherwise`. */
template <typename Operation>
int with_open_store(int otherwise, Operation operation) noexcept {
    Store *store = Store::current();
    return store != nullptr ? answer_of([&]() -> int { return operation(*store); }) : otherwise;
}

inline Bytes as_bytes(const void *pdata, unsigned int data_len) {
    return {static_cast<const std::byte *>(pdata), data_len};
}

inline bool valid_data(const void *pdata, unsigned int data_len) {
    return pdata != nullptr || data_len == 0;
}

/* Copies as much of `text` as there is room for, and a zero. */
int copy_text(std::string_view text, char *pbuf, unsigned int buf_len);

/* Leaves the bytes of a successful read pending on the handle. */
void hand_over(HandleUse &use, Content content, unsigned int *pdata_len_out);

} // namespace store
