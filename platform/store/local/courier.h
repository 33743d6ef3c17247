/* A thread that hands one host its requests, in the order in which they were sent, and calls it
 * back when it has asked for that.
 *
 * It starts with the first request and ends with the courier. A request that is withdrawn before
 * its turn never reaches the host; who sent it wants no reply.
 *
 * Left to others: what the host does with a request (serving/). */
#pragma once

#include <condition_variable>
#include <deque>
#include <thread>
#include <variant>

#include "engine/cluster.h"

namespace store {

class Courier {
public:
    Courier(RequestReceiver &receiver, ReplySink &sink) : receiver_(receiver), sink_(sink) {}
    Courier(const Courier &) = delete;
    Courier &operator=(const Courier &) = delete;
    ~Courier();

    /* Hands the request over soon. The sink hears of a refusal when there is no thread or no memory
     * for it. */
    void send(Request request);

    /* Calls the receiver back for a request that was handed over, after what is waiting now. Throws
     * std::bad_alloc. */
    void call_back(const HostId &sender, RequestId request);

    /* True when the request was still waiting for its turn; it is gone then. */
    bool take_back(RequestId request);

private:
    struct CallBack {
        HostId sender;
        RequestId request;
    };
    using Errand = std::variant<Request, CallBack>;

    void run();
    void add(Errand errand);
    void carry_out(Errand errand);
    void hand_over(Request request);

    RequestReceiver &receiver_;
    ReplySink &sink_;

    Mutex lock_; /* a leaf: receiver and sink are called without it */
    std::condition_variable wake_;
    std::deque<Errand> waiting_ ABSL_GUARDED_BY(lock_);
    bool ending_ ABSL_GUARDED_BY(lock_) = false;
    std::thread thread_; /* started under lock_ by the first request, joined by the destructor */
};

} // namespace store
