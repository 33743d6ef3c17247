/* The serving side of a host: requests come in, the process's callbacks are called, replies go out.
 *
 *   engine --receive--> request --> chunk, context, callback --accepted--> complete or flush --+
 *                         ^  ^                         --refused--> put back                   |
 *                         |  +--go_on-- engine <--call_back-- room in the window <-------------+
 *                         |                                                                    |
 *                         +-- over: its results and exceptions put together, reply <-----------+
 *   engine --withdraw-> what is out of it stays only to clean up after its late completion
 *
 * A request's results and exceptions objects are its own: when its reply does not count, they are
 * removed, so that nothing of a request that was given up reaches anyone.
 *
 * The files, each understandable alone:
 *   handlers.h         who handles what
 *   served_request.h   a request and its chunks
 *   key_source.h       where their keys come from
 *   pace.h             how many keys at a time
 *   partial_results.h  the results of many chunks
 *   open_chunks.h      contexts, and what reads tell
 *   handle_note.h      what a handle has done to a results object */
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "engine/cluster.h"
#include "engine/objects.h"
#include "serving/handle_note.h"
#include "serving/handlers.h"
#include "serving/open_chunks.h"

namespace store {

class Serving final : public RequestReceiver, public EventReceiver {
public:
    /* All of them outlive it. */
    Serving(Objects &objects, Cluster &cluster, const Clock &clock)
        : handlers(cluster), objects_(objects), cluster_(cluster), clock_(clock) {}

    /* Operations of storlib.h, their arguments checked for NULL. */
    Status get_keys(std::uint32_t context, std::span<Key> keys_out);
    Status complete(std::uint32_t context, std::uint32_t num_successful, std::uint32_t num_failed,
                    const HandleNote &note);
    Status flush(std::uint32_t context);

    /* This process handles no more requests and events: what it has accepted is answered as the
     * death of its host. */
    void stop_all();

    void receive(Request request) override;
    void withdraw(const HostId &sender, RequestId request) override {
        chunks.withdraw(sender, request);
    }
    RequestProgress progress_of(const HostId &sender, RequestId request) override {
        return chunks.progress_of(sender, request);
    }
    void renew(const HostId &sender, RequestId request) override;
    void go_on(const HostId &sender, RequestId request) override;
    void on_event(const Key &key, unsigned int event_code) override {
        handlers.call_event(key, event_code);
    }

    /* Self-synchronised. */
    Handlers handlers;
    OpenChunks chunks;

private:
    void feed(ServedRequest &request);
    void hand_out(ServedRequest &request, const std::shared_ptr<Chunk> &chunk);
    bool call_back(const ServedRequest &request);
    Status follow_up(ServedRequest &request, ServedRequest::After after);
    Status finish(ServedRequest &request);
    bool store_exceptions(const Request &request, Bytes exceptions);
    std::vector<std::byte> take_exceptions(const Chunk &chunk, bool has_some);
    Status send_reply(const Reply &reply);
    void remove_objects(ServedRequest &request);

    Objects &objects_;
    Cluster &cluster_;
    const Clock &clock_;
    KnownPaces paces_;
};

} // namespace store
