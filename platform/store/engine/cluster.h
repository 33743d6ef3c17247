/* The seam, second half: hosts, what they serve, and the requests between them.
 *
 * Two directions cross it. Downwards, the store calls Cluster. Upwards, the engine calls a
 * RequestReceiver on the host that a request was sent to, a ReplySink on the host that sent it, and
 * an EventReceiver on a host that handles the app id of an object that something happened to:
 *
 *   invocation --Cluster::send-->  [engine]  --RequestReceiver::receive-->  serving --> callback
 *   invocation <--ReplySink::on_reply-- [engine] <--Cluster::reply--------- serving <-- completion
 *                                  [engine]  --EventReceiver::on_event-->   serving --> callback
 *
 * Records cross by value: sender and receiver share no memory through them. The conventions of
 * objects.h hold here as well. */
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "engine/keys.h"
#include "engine/selection.h"
#include "engine/types.h"

namespace store {

using RequestId = std::uint64_t; /* unique among the requests of one sending host, never 0 */

/* A process that takes part. One that comes back after it was declared gone has the next
 * incarnation, and is another host. */
struct HostId {
    std::uint32_t number = 0; /* 0: none */
    std::uint32_t incarnation = 0;

    auto operator<=>(const HostId &) const = default;
};

inline constexpr HostId no_host{};

/* What one host is to evaluate: keys, or the objects of a selection that lie in a part of the key
 * space. The host finds the latter when it takes the request on. */
struct Share {
    HostId host;
    bool is_part = false;
    std::vector<Key> keys; /* in key order; unless it is a part */
    Selection selection;   /* of a part */
    Part part;
};

/* One request to one host: to evaluate objects, or to merge one results object into another. */
struct Request {
    RequestId id = 0;
    HostId sender;
    std::uint32_t event_app_id = 0;  /* whose workers handle it */
    bool progress_is_wanted = false; /* the sender will ask how far it is */
    bool is_merge = false;           /* of the object params_key into the one at results_key */
    bool is_indivisible = false;     /* its objects are to be evaluated as one request */
    std::uint32_t params_length = 0; /* bytes */

    std::uint32_t app_id = 0; /* of the objects */
    std::uint64_t invoke_op = 0;
    std::uint64_t merge_op = 0;
    std::uint32_t timeout_s = 0;
    std::uint8_t immediate_params = 0;
    Key params_key{};
    Key results_key{};
    Key exceptions_key{};

    Share share; /* whom it is for and, unless it is a merge, what to evaluate */
};

struct Reply {
    enum class Kind : std::uint8_t { completed, refused, host_gone };

    RequestId request = 0;
    HostId to;   /* the sender of the request */
    HostId from; /* whom the request was sent to */
    Kind kind = Kind::completed;
    int refusal = 0;                          /* what the callback answered */
    std::optional<std::uint64_t> num_matched; /* objects, once the host has found them itself */
    std::uint32_t num_successful = 0;
    std::uint32_t num_failed = 0;
    bool lacks_room = false; /* results or exceptions are lost, since there was no room for them */
};

/* Whether a host that refuses so may take the same request later. */
inline bool is_for_the_moment(int refusal) {
    return refusal == OMRALIB_INVOKE_NO_KEYS || refusal == OMRALIB_INVOKE_NO_MEMORY;
}

/* How far a request is. */
struct RequestProgress {
    std::uint64_t num_matched = 0; /* objects */
    std::uint64_t num_begun = 0;   /* of them */
};

/* On the host that a request was sent to. Called on threads of the engine's choice. */
class RequestReceiver {
public:
    virtual ~RequestReceiver() = default;

    /* Takes the request; Cluster::reply follows, once, perhaps before this returns. */
    virtual void receive(Request request) = 0;

    /* The sender wants no reply to this request any more. */
    virtual void withdraw(const HostId &sender, RequestId request) = 0;

    /* How far a request is whose progress is wanted; nothing when it is not known here. */
    virtual RequestProgress progress_of(const HostId &sender, RequestId request) = 0;

    /* The sender still waits for the request: what there is of its results is to stay. */
    virtual void renew(const HostId &sender, RequestId request) = 0;

    /* The receiver has asked to be called, see Cluster::call_back. */
    virtual void go_on(const HostId &sender, RequestId request) = 0;
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

class Cluster {
public:
    Cluster() = default;
    Cluster(const Cluster &) = delete;
    Cluster &operator=(const Cluster &) = delete;
    virtual ~Cluster() = default;

    /* Names where requests, replies and events for this host go. Called once, before anything else.
     */
    virtual void attach(RequestReceiver &receiver, ReplySink &sink, EventReceiver &events) = 0;

    /* Stops the engine's threads: once this has returned nothing goes upwards any more. The last
     * call. */
    virtual void detach() = 0;

    virtual HostId this_host() const = 0;

    /* Binds a name to an app id for all hosts. OMRALIB_ERR_NAME_REGISTERED when it is bound. */
    virtual Status bind_name(std::string_view name, std::uint32_t &app_id_out) = 0;

    /* Tells the other hosts that this one handles requests of `app_id`, or no longer does. */
    virtual Status announce(std::uint32_t app_id, bool serving) = 0;

    /* The hosts that handle requests of `app_id`, and those that handle any. */
    virtual Status hosts_serving(std::uint32_t app_id, std::vector<HostId> &hosts_out) = 0;
    virtual Status hosts_serving_any(std::vector<HostId> &hosts_out) = 0;

    /* Divides the selected objects among `hosts` (at least one), near where they are kept if it
     * can. Shares that are known to be empty are left out. `check` may end it. */
    virtual Status plan(const Selection &selection, std::span<const HostId> hosts,
                        const SearchCheck &check, std::vector<Share> &shares_out) = 0;

    /* Hands a request to the host of its share. What becomes of it comes to the ReplySink, once,
     * perhaps before this returns: completed, refused, or host_gone when the host is gone first.
     * After a failure other than OMRALIB_ERR_UNKNOWN nothing comes. */
    virtual Status send(Request request) = 0;

    /* Tells the host that nobody waits for this request any more. */
    virtual Status withdraw(const HostId &host, RequestId request) = 0;

    /* How far a request is whose progress is wanted, as far as this host has heard. */
    virtual Status progress_of(const HostId &host, RequestId request,
                               RequestProgress &progress_out) = 0;

    /* Tells the host that somebody still waits for this request; to be done twice a minute. */
    virtual Status renew(const HostId &host, RequestId request) = 0;

    /* Calls RequestReceiver::go_on() soon, on a thread of the engine's own and after what has been
     * sent to this host before. For receivers. Needs no answer: never OMRALIB_ERR_UNKNOWN. */
    virtual Status call_back(const HostId &host, const HostId &sender, RequestId request) = 0;

    /* Carries the reply to the request's sender; what its ReplySink said, as far as the engine can
     * know it, else success. The same reply may be given again after OMRALIB_ERR_UNKNOWN; it counts
     * once. */
    virtual Status reply(const Reply &reply) = 0;

    /* The host is gone for good: the senders of its requests hear host_gone, its replies count no
     * more, and it is not among the hosts that serve. OMRALIB_ERR_BAD_ARGS when there is no such
     * host. */
    virtual Status declare_gone(std::uint32_t host_number) = 0;
};

} // namespace store
