/* The serving side of a host: requests come in, the process's callbacks are called, replies go out.
 *
 *   engine --receive--> objects found, context made, callback called
 *                            --accepted--> complete or flush --> reply
 *                            --refused---> reply
 *   engine --withdraw-> the context stays only to clean up after its late completion
 *
 * A request's results and exceptions objects are its own: when its reply does not count, they are
 * removed, so that nothing of a request that was given up reaches anyone.
 *
 * handlers.h says who handles what, open_requests.h what is accepted and what reads tell. */
#pragma once

#include <cstdint>
#include <span>

#include "engine/cluster.h"
#include "engine/objects.h"
#include "serving/handlers.h"
#include "serving/open_requests.h"

namespace store {

class Serving final : public RequestReceiver, public EventReceiver {
public:
    /* Both outlive it. */
    Serving(Objects &objects, Cluster &cluster)
        : handlers(cluster), objects_(objects), cluster_(cluster) {}

    /* Operations of storlib.h, their arguments checked for NULL. */
    Status get_keys(std::uint32_t context, std::span<Key> keys_out);
    Status complete(std::uint32_t context, std::uint32_t num_successful, std::uint32_t num_failed);
    Status flush(std::uint32_t context);

    /* This process handles no more requests and events: what it has accepted is answered as the
     * death of its host. */
    void stop_all();

    void receive(Request request) override;
    void withdraw(const HostId &sender, RequestId request) override {
        requests.withdraw(sender, request);
    }
    RequestProgress progress_of(const HostId &sender, RequestId request) override {
        return requests.progress_of(sender, request);
    }
    void on_event(const Key &key, unsigned int event_code) override {
        handlers.call_event(key, event_code);
    }

    /* Self-synchronised. */
    Handlers handlers;
    OpenRequests requests;

private:
    Status send_reply(const Reply &reply);
    void remove_objects(const Request &request);

    Objects &objects_;
    Cluster &cluster_;
};

} // namespace store
