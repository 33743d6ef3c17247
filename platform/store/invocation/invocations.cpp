/* An invocation waits for its turn, known by its handle, and then runs. */
#include "invocation/invocations.h"

#include <chrono>

namespace store {

namespace {

/* Counts an invocation while it runs. */
class RunningFigures {
public:
    explicit RunningFigures(InvocationFigures &figures) : figures_(figures) {
        ++figures_.num_running;
    }
    RunningFigures(const RunningFigures &) = delete;
    RunningFigures &operator=(const RunningFigures &) = delete;
    ~RunningFigures() {
        using std::chrono::microseconds;
        const auto time = std::chrono::steady_clock::now() - start_;
        const auto us = std::chrono::duration_cast<microseconds>(time).count();
        figures_.time_us += static_cast<std::uint64_t>(us);
        --figures_.num_running;
        ++figures_.num_finished;
    }

private:
    InvocationFigures &figures_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace

/* Makes an invocation known by its handle while it lives. */
class Invocations::Registration {
public:
    Registration(Invocations &all, OMRALIB_HANDLE hdl, Mailbox &box) : all_(all), hdl_(hdl) {
        const Guard guard(all_.lock_);
        all_.by_handle_[hdl_] = &box;
    }
    Registration(const Registration &) = delete;
    Registration &operator=(const Registration &) = delete;
    ~Registration() {
        const Guard guard(all_.lock_);
        all_.by_handle_.erase(hdl_);
    }

private:
    Invocations &all_;
    const OMRALIB_HANDLE hdl_;
};

Status Invocations::run(const InvokeOrder &order, const Invoker &invoker,
                        OMRA_INVOKE_RESULT &result_out) {
    const RunningFigures running(shared_.figures);
    const Millis timeout = order.header.invoke_timeout * millis_per_second;
    const Millis deadline = timeout != 0 ? shared_.clock.now() + timeout : never;
    Mailbox box(shared_.mailroom);
    const Registration registration(*this, invoker.hdl, box);
    const Admission::Place place(admission_, box);
    while (!place.is_admitted()) {
        if (shared_.mailroom.is_cancelled(box)) {
            return OMRALIB_ERR_CANCELLED;
        }
        if (shared_.clock.now() >= deadline) {
            return OMRALIB_ERR_INVOKE_TIMEOUT;
        }
        shared_.mailroom.wait(box, deadline);
    }
    Invocation invocation(shared_, order, invoker, box, deadline);
    return invocation.run(result_out);
}

void Invocations::cancel(OMRALIB_HANDLE hdl) {
    const Guard guard(lock_);
    const auto found = by_handle_.find(hdl);
    if (found != by_handle_.end()) {
        shared_.mailroom.cancel(*found->second);
    }
}

} // namespace store
