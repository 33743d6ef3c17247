/* Invocations as their sender sees them: admit -> plan -> deliver and fold -> answer.
 *
 * Admit waits for a turn; plan finds the hosts that serve the app id and divides the objects among
 * them; deliver gets one request to each host done, by another host if need be, while fold brings
 * the partial results together; answer says what came of it. All of that happens on the invoking
 * thread, which sleeps at its mailbox in between. When the deadline comes first, be it during the
 * wait for a turn, or the invocation is cancelled, there is no answer, and nothing of it stays. In
 * an answer, successful and failed objects are always as many as the matching ones: those that no
 * host could take have failed. There is none when no host could take any.
 *
 * The files of an invocation, each understandable alone:
 *   admission.h    how many invocations run at once
 *   mailroom.h     what wakes the invoking thread
 *   invocation.h   one invocation that has got its turn
 *   delivery.h     requests, retries, hosts that are gone
 *   folding.h      partial results
 *   exceptions.h   exceptions put together
 *   shared.h       what all invocations share
 *
 * Locks, in the order in which they may nest: that of the invocations that run by handle, that of
 * the admission, that of the mailroom. None is held while an engine, a host or a progress function
 * is called.
 *
 * Left to others: how objects are found and hosts reached (engine/), what a host does with a
 * request (serving/), and what is in the results (nobody here looks inside). */
#pragma once

#include <cstdint>
#include <unordered_map>

#include "engine/options.h"
#include "invocation/admission.h"
#include "invocation/invocation.h"

namespace store {

class Invocations final : public ReplySink {
public:
    Invocations(Objects &objects, Cluster &cluster, Clock &clock,
                const Configuration &configuration)
        : shared_(objects, cluster, clock),
          admission_(shared_.mailroom, configuration.max_invocations) {}

    /* Runs one invocation on the calling thread. OMRALIB_ERR_CANCELLED when it was cancelled,
     * OMRALIB_ERR_INVOKE_TIMEOUT when its time was over, OMRALIB_ERR_UNKNOWN when its results may
     * be there but the store did not say. */
    Status run(const InvokeOrder &order, const Invoker &invoker, OMRA_INVOKE_RESULT &result_out);

    /* Cancels the invocation that runs, or waits for its turn, on a handle; if there is one. */
    void cancel(OMRALIB_HANDLE hdl);

    Status on_reply(const Reply &reply) override { return shared_.mailroom.deliver(reply); }

    const InvocationFigures &figures() const { return shared_.figures; }

private:
    class Registration;

    Shared shared_;
    Admission admission_;

    Mutex lock_;
    std::unordered_map<OMRALIB_HANDLE, Mailbox *> by_handle_ ABSL_GUARDED_BY(lock_);
};

} // namespace store
