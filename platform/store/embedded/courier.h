/* A thread that hands one host its requests, in the order in which they were sent.
 *
 * It starts with the first request and ends with the courier. A request that is withdrawn before
 * its turn never reaches the host; who sent it wants no reply.
 *
 * Left to others: what the host does with a request (server.h). */
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "engine/engine.h"

namespace store {

class Courier {
public:
    Courier(RequestReceiver &receiver, ReplySink &sink) : receiver_(receiver), sink_(sink) {}
    Courier(const Courier &) = delete;
    Courier &operator=(const Courier &) = delete;
    ~Courier();

    /* Hands the request over soon. The sink hears of a refusal when there is no thread or no memory
     * for it. */
    void send(const std::shared_ptr<const Request> &request);

    /* True when the request was still waiting for its turn; it is gone then. */
    bool take_back(RequestId request);

private:
    using RequestPtr = std::shared_ptr<const Request>;

    void run();
    void hand_over(const RequestPtr &request);
    void refuse(const Request &request);

    RequestReceiver &receiver_;
    ReplySink &sink_;

    std::mutex lock_; /* a leaf: receiver and sink are called without it */
    std::condition_variable wake_;
    std::deque<RequestPtr> waiting_; /* guarded by lock_ */
    bool ending_ = false;            /* guarded by lock_ */
    std::thread thread_;             /* guarded by lock_ until the courier ends */
};

} // namespace store
