/* One invocation that has got its turn: what follows from the ends of its tasks, and what is left
 * of it for its sender. Everything runs on the invoking thread. */
#pragma once

#include <vector>

#include "invocation/delivery.h"
#include "invocation/folding.h"
#include "query/request.h"

namespace store {

/* Who invokes, and what it wants to hear meanwhile. */
struct Invoker {
    OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE; /* by which cancel() names the invocation */
    OMRALIB_PROGRESS_FUNC progress = nullptr;
    void *progress_arg = nullptr;
};

class Invocation {
public:
    /* All of them outlive it; `deadline` may be `never`. */
    Invocation(Shared &shared, const InvokeOrder &order, const Invoker &invoker, Mailbox &box,
               Millis deadline)
        : shared_(shared), order_(order), invoker_(invoker), box_(box), deadline_(deadline),
          delivery_(shared, order, box, deadline, invoker.progress != nullptr),
          folding_(shared, delivery_) {}
    Invocation(const Invocation &) = delete;
    Invocation &operator=(const Invocation &) = delete;

    /* Removes what is left of it, unless it has been answered. */
    ~Invocation();

    /* Once. */
    Status run(OMRA_INVOKE_RESULT &result_out);

private:
    /* A task that evaluated and is over. */
    struct Part {
        std::size_t index; /* of the share in the plan */
        bool completed;
        std::uint64_t num_matched;
        std::uint64_t num_successful;
        Key exceptions_key;
    };

    Status plan();
    Status work();
    Status check_for_end();
    Status settle_ended();
    Status settle(const Task &task);
    Status settle_part(const Task &task);
    void rest();
    void renew();
    std::vector<Key> exceptions_keys();
    Status answer(OMRA_INVOKE_RESULT &result_out);
    OMRALIB_PROGRESS progress() const;
    void report();
    void discard();

    Shared &shared_;
    const InvokeOrder &order_;
    const Invoker &invoker_;
    Mailbox &box_;
    const Millis deadline_;

    Delivery delivery_;
    Folding folding_;
    std::vector<Part> parts_; /* as they ended */
    std::vector<Key> fold_exceptions_;
    bool lacks_room_ = false; /* for an object of a task */
    Millis next_report_ = 0;
    Millis next_renewal_ = never;
    bool answered_ = false;
};

} // namespace store
