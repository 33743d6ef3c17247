/* The seam: everything that the store needs from something that keeps objects and reaches hosts.
 *
 * The rooms above it (client, server, query, invocation) know an engine only through this header.
 * They assume neither that two hosts share memory nor that a call is cheap, so an engine may answer
 * from this process's memory (embedded/) or over a network.
 *
 * Two directions cross the seam. Downwards, the store calls Engine. Upwards, the engine calls a
 * RequestReceiver on the host that a request was sent to, a ReplySink on the host that sent it, and
 * an EventReceiver on a host that handles the app id of an object that something happened to:
 *
 *   invocation --Engine::send-->  [engine]  --RequestReceiver::receive-->  server --> callback
 *   invocation <--ReplySink::on_reply-- [engine] <--Engine::reply--------- server <-- completion
 *                                 [engine]  --EventReceiver::on_event-->   server --> callback
 *
 * Conventions:
 *  1. A Status is OMRALIB_RET_SUCCESS or a negative code of storlib.h.
 *  2. Keys are plain and not null. Engines are called by many threads at once.
 *  3. After a failure outputs are untouched and the objects are as they were.
 *  4. What stores or changes an object answers OMRALIB_ERR_NO_SPACE beyond the memory limit.
 *  5. std::bad_alloc may leave any operation that stores or lists; rule 3 holds for it too. */
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/conditions.h"
#include "engine/content.h"
#include "engine/keys.h"
#include "engine/types.h"

namespace store {

/* What an object is made of, besides its key. */
struct ObjectSpec {
    Bytes bytes;
    std::uint32_t timeout_m = 0;            /* minutes after its last use; 0: none */
    std::span<const OMRA_OBJ_INDEX> values; /* of its indexes; each index at most once */
};

/* Which objects: those of an app id, or of all ordinary ones, for which a condition holds; of these
 * a sample, and of the sample the first ones in key order. */
struct Selection {
    std::uint32_t app_id = 0; /* OMRALIB_ALL_APP_IDS: all ordinary ones */
    Condition where;          /* at first: every object */
    std::uint32_t sample = whole_sample;
    std::uint64_t limit = UINT64_MAX;
};

/* How an engine would find the objects of a selection. */
struct Explanation {
    enum class Access : std::uint8_t {
        looked_up, /* in an index */
        tested,    /* on the objects that were looked up */
        scanned,   /* on every object */
    };

    /* One condition; the parts of an all_of or any_of follow it, one level deeper. */
    struct Step {
        unsigned int level;
        Condition::Kind kind;
        std::string text;       /* of a comparison */
        std::uint64_t expected; /* objects for which it holds */
        Access access;
    };

    std::uint64_t num_objects = 0; /* of the app id */
    std::uint64_t expected = 0;    /* objects for which the condition holds, at most */
    std::vector<Step> steps;       /* the parts of a condition in the order of their use */
};

/* What is stored now. */
struct Totals {
    std::uint64_t num_objects = 0;
    std::uint64_t num_bytes = 0;
};

/* What an engine has done since it was made. */
struct Activity {
    std::uint64_t num_expired = 0;    /* objects */
    std::uint64_t num_lock_waits = 0; /* calls of read_and_lock that had to wait */
};

/* The keys that one host is to evaluate. */
struct Share {
    HostId host = 0;
    std::vector<Key> keys;
};

/* Keys that requests share, since a request may have to be made again for another host. */
using KeyList = std::shared_ptr<const std::vector<Key>>;

/* One request to one host. `params` is what the host's callback gets, but for the context, by which
 * the host knows the request. */
struct Request {
    RequestId id = 0;
    HostId sender = 0;
    HostId host = 0;                /* whom it is for */
    std::uint32_t event_app_id = 0; /* whose workers handle it */
    bool watched = false;           /* the sender will ask how far it is */
    OMRALIB_INVOKE_PARAMS params{};
    KeyList keys; /* in key order; nullptr for a merge request */
};

struct Reply {
    enum class Kind { completed, refused, host_gone };

    RequestId request = 0;
    HostId to = 0; /* the sender of the request */
    Kind kind = Kind::completed;
    int refusal = 0; /* what the callback answered */
    std::uint32_t num_successful = 0;
    std::uint32_t num_failed = 0;
};

/* On the host that a request was sent to. Called on threads of the engine's choice. */
class RequestReceiver {
public:
    virtual ~RequestReceiver() = default;

    /* Takes the request; Engine::reply follows, once, perhaps before this returns. */
    virtual void receive(std::shared_ptr<const Request> request) = 0;

    /* The sender wants no reply to this request any more. */
    virtual void withdraw(HostId sender, RequestId request) = 0;

    /* How many objects of a watched request have been begun; 0 when it is not known here. */
    virtual std::uint32_t num_begun(HostId sender, RequestId request) = 0;
};

/* On the host that sent a request. Called on threads of the engine's choice. */
class ReplySink {
public:
    virtual ~ReplySink() = default;

    /* Success when the reply counts; OMRALIB_ERR_BAD_ARGS when nobody waits for it any more. */
    virtual Status on_reply(const Reply &reply) = 0;
};

/* On a host that handles the app id of an object. */
class EventReceiver {
public:
    virtual ~EventReceiver() = default;

    /* An event (OMRALIB_EVENT_*) of the object that was `key`. Called on a thread of the engine's
     * own with no lock held; the next event waits until it returns. */
    virtual void on_event(const Key &key, unsigned int event_code) = 0;
};

class Engine {
public:
    Engine() = default;
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;
    virtual ~Engine() = default;

    /* Names where requests, replies and events for this host go. Called once, before anything else.
     */
    virtual void attach(RequestReceiver &receiver, ReplySink &sink, EventReceiver &events) = 0;

    /* Stops the engine's threads: once this has returned nothing goes upwards any more. The last
     * call. */
    virtual void detach() = 0;

    /* Objects ---------------------------------------------------------------------------------- */

    /* OMRALIB_ERR_OBJ_EXISTS when the key is taken. */
    virtual Status create(const Key &key, const ObjectSpec &spec) = 0;

    /* `renew` is false for a use that leaves the object's time-out running. */
    virtual Status read(const Key &key, bool renew, ContentRef &content_out) = 0;

    /* Reads and locks. A positive ticket, unlike that of any other lock of this object, or a code:
     * OMRALIB_ERR_OBJ_LOCKED when it is locked and stays so for `patience`.
     *
     * The lock has a lease. When that is over, the lock is free for the next and its ticket worth
     * nothing; who holds it keeps it with renew_lock. */
    virtual int read_and_lock(const Key &key, bool renew, Millis patience,
                              ContentRef &content_out) = 0;

    /* The lease of the lock `ticket` starts anew. OMRALIB_ERR_LOCK_LOST when the object is there
     * but that lock is not. */
    virtual Status renew_lock(const Key &key, int ticket) = 0;

    /* New bytes under the lock `ticket`, which ends on success if `unlock`. OMRALIB_ERR_LOCK_LOST
     * when the object is there but that lock is not. */
    virtual Status update(const Key &key, int ticket, bool unlock, bool renew, Bytes bytes) = 0;
    virtual Status unlock(const Key &key, int ticket) = 0;

    /* Everything of an existing object at once. OMRALIB_ERR_OBJ_LOCKED while it is locked. */
    virtual Status replace(const Key &key, const ObjectSpec &spec) = 0;

    /* Removes the object, locked or not; its lock is gone with it. */
    virtual Status remove(const Key &key) = 0;

    /* Success or OMRALIB_ERR_OBJ_NOT_FOUND; not a use of the object. */
    virtual Status exists(const Key &key) = 0;

    /* Sets of objects -------------------------------------------------------------------------- */

    /* The keys of the selected objects, in key order; not a use of them. */
    virtual Status find(const Selection &selection, std::vector<Key> &keys_out) = 0;

    /* How find() would go about it now. */
    virtual Status explain(const Selection &selection, Explanation &explanation_out) = 0;

    /* Of the objects of an app id, of all ordinary ones (OMRALIB_ALL_APP_IDS), and of all. */
    virtual Totals totals_of(std::uint32_t app_id) = 0;
    virtual Totals totals() = 0;

    virtual Activity activity() = 0;

    /* Names and hosts -------------------------------------------------------------------------- */

    /* Binds a name to an app id for all hosts. OMRALIB_ERR_NAME_REGISTERED when it is bound. */
    virtual Status bind_name(std::string_view name, std::uint32_t &app_id_out) = 0;

    virtual HostId this_host() const = 0;

    /* Tells the other hosts that this one handles requests of `app_id`, or no longer does. */
    virtual void announce(std::uint32_t app_id, bool serving) = 0;

    /* The hosts that handle requests of `app_id`, and those that handle any. */
    virtual std::vector<HostId> hosts_serving(std::uint32_t app_id) = 0;
    virtual std::vector<HostId> hosts_serving_any() = 0;

    /* Divides keys among `hosts` (at least one), near their objects if it can. Key order stays
     * within a share; no share is empty. */
    virtual std::vector<Share> share_out(std::vector<Key> keys, std::span<const HostId> hosts) = 0;

    /* Hands a request to a host. What becomes of it comes to the ReplySink, once, perhaps before
     * this returns: completed, refused, or host_gone when the host is gone first. */
    virtual void send(HostId host, std::shared_ptr<const Request> request) = 0;

    /* Tells the host that nobody waits for this request any more. */
    virtual void withdraw(HostId host, RequestId request) = 0;

    /* Asks the host how far a watched request is; 0 when that cannot be known. */
    virtual std::uint32_t num_begun(HostId host, RequestId request) = 0;

    /* Carries the reply to the request's sender; what its ReplySink said, as far as the engine can
     * know it, else success. */
    virtual Status reply(const Reply &reply) = 0;

    /* The host is gone for good: the senders of its requests hear host_gone, its replies count no
     * more, and it is not among the hosts that serve. OMRALIB_ERR_BAD_ARGS when there is no such
     * host. */
    virtual Status declare_gone(HostId host) = 0;
};

} // namespace store
