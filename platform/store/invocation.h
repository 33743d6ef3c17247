/* Invocations as their sender sees them: plan -> deliver -> wait -> fold -> answer.
 *
 * Plan finds the objects and divides them among the hosts that serve the app id; deliver sends one
 * request to each; wait lasts until every request has been answered or the deadline has passed;
 * fold brings the partial results together; answer says what came of it. Whatever has not been
 * completed when the deadline has passed is withdrawn: its reply no longer counts, and there is no
 * answer.
 *
 * Left to others: how objects are found and hosts reached (engine.h), what a host does with a
 * request (server.h), and what is in the results (nobody here looks inside). */
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include <absl/container/flat_hash_map.h>

#include "engine.h"
#include "query.h"

namespace store {

class Invocation;

class Invocations final : public ReplySink {
public:
    Invocations(Engine &engine, Clock &clock);

    /* Runs one invocation on the calling thread; any number of them run at once. */
    Status run(const InvokeOrder &order, OMRA_INVOKE_RESULT &result_out);

    Status on_reply(const Reply &reply) override;

    std::uint64_t num_finished() const { return num_finished_; }

private:
    friend class Invocation;

    /* Which request of which running invocation. */
    struct Waiting {
        Invocation *invocation;
        std::size_t part;
    };

    Key make_key(unsigned char kind);

    Engine &engine_;
    Clock &clock_;
    const OMRA_OBJID process_id_; /* random; keeps this process's keys from those of others */

    std::atomic<std::uint64_t> next_key_{1};
    std::atomic<RequestId> next_request_{1};
    std::atomic<std::uint64_t> num_finished_{0};

    std::mutex lock_; /* guards the parts of all running invocations too; a leaf */
    absl::flat_hash_map<RequestId, Waiting> waiting_; /* guarded by lock_; unanswered requests */
};

} // namespace store
