/* The library, its handles, and this host's address. */
#include "client/calls.h"

#include <algorithm>
#include <cstring>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

namespace store {

namespace {

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

int Omralib_init(void) {
    return open_or_explain() != nullptr ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_CANT_INIT;
}

void Omralib_use_large_keys(void) {}

OMRALIB_HANDLE Omralib_open_ext(const char *pguid) {
    OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE;
    with_store([&](Store &store) {
        Guid guid{};
        if (pguid != nullptr) {
            std::copy_n(pguid, guid.size(), guid.begin());
        }
        hdl = store.handles.open(guid);
        return OMRALIB_RET_SUCCESS;
    });
    return hdl;
}

int Omralib_close(OMRALIB_HANDLE hdl) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) {
        for (const HeldLock &held : use->locks.all()) {
            store.objects().unlock(held.key, held.ticket);
        }
        store.serving.chunks.forget(use->cursor);
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
